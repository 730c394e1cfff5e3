// `reflectorb` looks at the objects and processes of a running platform, and uses them, by names
// alone: it has no class linked into it, and learns those of the objects that it meets.
#include <csignal>
#include <cstdlib>

#include "Command.h"
#include "CommandLine.h"
#include "Group.h"

namespace {

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
        output.complain(why.what());
        outcome = why.outcome();
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
    Settings settings;
    Commands const commands = makeCommands();
    Command& command = readCommandLine(argc, argv, commands, settings);
    Output output(settings);
    bool isBusy = false;
    ExitCode outcome = ExitCode::kDone;
    try {
        outcome = perform(command, settings, output, isBusy);
    } catch (Failure const& why) {
        output.complain(why.what());
        outcome = why.outcome();
    }
    output.flush();
    if (isBusy || command.stays())
        std::_Exit(static_cast<int>(outcome));
    return static_cast<int>(outcome);
}
