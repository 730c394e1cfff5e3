// `reflectorb` looks at the objects and processes of a running platform, and uses them, by names
// alone: it has no class linked into it, and learns those of the objects that it meets.
#include <csignal>
#include <cstdlib>

#include "Command.h"
#include "CommandLine.h"
#include "Group.h"
#include "Members.h"

namespace {

/** Says why a command has failed as a whole: programs read that in place of its document. */
ExitCode told(Failure const& why, Output& output) {
    output.complain(why.what());
    output.event({{"error", errorJson(why.outcome(), why.what())}});
    return why.outcome();
}

/** What nobody has thought of. */
ExitCode told(std::exception const& why, Output& output) {
    return told(Failure(ExitCode::kNoAccess, std::string("cannot go on: ") + why.what()), output);
}

/** What is collected in the group is written when it has been left: whoever reads slowly, or stops
 * the program by Ctrl-Z then, holds up nobody. */
ExitCode perform(Command& command, Settings const& settings, Output& output, bool& isBusy) {
    if (command.stays())
        return command.stay(settings, output);
    Group group(settings.verbose);
    auto* const tool = new Tool(settings, output);
    ExitCode outcome = ExitCode::kDone;
    try {
        outcome = command.run(*tool);
    } catch (Failure const& why) {
        outcome = told(why, output);
    } catch (std::exception const& why) {
        outcome = told(why, output);
    }
    // Threads that still wait for somebody who hangs use it.
    isBusy = tool->asking().isBusy();
    if (!isBusy)
        delete tool;
    return outcome;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGTTOU, SIG_IGN);  // writing in the background must not stop it
    std::signal(SIGXFSZ, SIG_IGN);  // a file that becomes too large is told like a full disk
    std::signal(SIGPIPE, SIG_IGN);  // whoever stops reading has it leave the group
    Settings settings;
    Commands const commands = makeCommands();
    Command& command = readCommandLine(argc, argv, commands, settings);
    Output output(settings);
    bool isBusy = false;
    ExitCode outcome = ExitCode::kDone;
    try {
        outcome = perform(command, settings, output, isBusy);
    } catch (Failure const& why) {
        outcome = told(why, output);
    } catch (std::exception const& why) {
        outcome = told(why, output);
    }
    output.flush();
    if (output.hasFailed())
        outcome = ExitCode::kNoAccess;
    if (isBusy || command.stays())
        std::_Exit(static_cast<int>(outcome));
    return static_cast<int>(outcome);
}
