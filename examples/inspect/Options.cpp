#include "Options.h"

#include <cstdio>
#include <cstdlib>

#include "Report.h"

namespace {

constexpr char kUsage[] =
    "usage: inspect OBJECT                            its classes, attributes and operations\n"
    "       inspect OBJECT --tree                     the tree of names from it downwards\n"
    "       inspect OBJECT --set ATTRIBUTE=VALUE      change an attribute\n"
    "       inspect OBJECT --call OPERATION [ARG...]  call an operation and show its results\n"
    "       inspect OBJECT --watch OPERATION [--count N]\n"
    "                                                 show every call of an operation\n"
    "       inspect OBJECT --watch ATTRIBUTE [--count N]\n"
    "                                                 show its value, and each other one it gets\n"
    "       inspect OBJECT --veto OPERATION [--count N]\n"
    "                                                 forbid every call of an operation\n"
    "       inspect --brokers                         the brokers of the group and their traffic\n"
    "       inspect --follow [--count N]              objects and brokers that come and go\n"
    "\n"
    "OBJECT is an absolute name such as /machine/cpu0, or an identifier such as\n"
    "machine.cpu.cpu0 (name@node for one that is known to all units of the node). The first\n"
    "name of an absolute name is the identifier of the object at the root of the tree.\n"
    "\n"
    "Values are written 42, -1, 0x2A, true, text, \"text, quoted\", [1, 2] for a sequence and\n"
    "{1, true} for values that belong together. --watch and --veto go on until SIGINT or\n"
    "SIGTERM, or until they have seen N calls or values; --follow likewise, with lines.\n"
    "\n"
    "Exit codes: 0 done; 1 the object is not there, has no such member, or refuses; 2 wrong use.\n";

[[noreturn]] void misused(std::string const& text) {
    complain(text + " (inspect --help tells more)");
    std::exit(2);
}

Options::Action actionOf(std::string const& word) {
    if (word == "--tree")
        return Options::Action::kTree;
    if (word == "--set")
        return Options::Action::kSet;
    if (word == "--call")
        return Options::Action::kCall;
    if (word == "--watch")
        return Options::Action::kWatch;
    if (word == "--veto")
        return Options::Action::kVeto;
    misused("there is no \"" + word + "\"");
}

/** "ATTRIBUTE=VALUE"; the value may have more of "=". */
void readAssignment(std::string const& text, Options& options) {
    std::size_t const end = text.find('=');
    if (end == 0 || end == std::string::npos)
        misused("--set needs ATTRIBUTE=VALUE");
    options.member = text.substr(0, end);
    options.texts = {text.substr(end + 1)};
}

unsigned int readCount(std::vector<std::string> const& words) {
    if (words.empty())
        return 0;
    if (words.size() != 2 || words[0] != "--count")
        misused("only --count N may follow");
    char* end = nullptr;
    long const count = std::strtol(words[1].c_str(), &end, 10);
    if (words[1].empty() || *end != '\0' || count < 1 || count > 1000000)
        misused("--count needs a number from 1 to 1000000");
    return static_cast<unsigned int>(count);
}

/** What stands behind OBJECT. */
void readAction(std::vector<std::string> words, Options& options) {
    using Action = Options::Action;
    std::string const name = words.front();
    options.action = actionOf(name);
    words.erase(words.begin());
    if (options.action == Action::kTree) {
        if (!words.empty())
            misused("nothing may follow --tree");
        return;
    }
    if (words.empty())
        misused(name + (options.action == Action::kSet ? " needs ATTRIBUTE=VALUE"
                                                       : " needs the name of an operation"));
    std::string const member = words.front();
    words.erase(words.begin());
    options.member = member;
    if (options.action == Action::kCall) {
        options.texts = words;
    } else if (options.action == Action::kSet) {
        if (!words.empty())
            misused("nothing may follow ATTRIBUTE=VALUE; quote a value that has blanks");
        readAssignment(member, options);
    } else {
        options.count = readCount(words);
    }
}

/** What is asked of the whole group; false when it is something else. */
bool readGroupAction(std::vector<std::string> const& words, Options& options) {
    if (words[0] != "--brokers" && words[0] != "--follow")
        return false;
    std::vector<std::string> const rest(words.begin() + 1, words.end());
    options.action = words[0] == "--follow" ? Options::Action::kFollow : Options::Action::kBrokers;
    if (options.action == Options::Action::kFollow)
        options.count = readCount(rest);
    else if (!rest.empty())
        misused("nothing may follow --brokers");
    return true;
}

}  // namespace

Options readOptions(int argc, char** argv) {
    std::vector<std::string> const words(argv + 1, argv + argc);
    if (words.empty()) {
        std::fputs(kUsage, stderr);
        std::exit(2);
    }
    if (words[0] == "--help" || words[0] == "-h") {
        std::fputs(kUsage, stdout);
        std::exit(0);
    }
    Options options;
    if (readGroupAction(words, options))
        return options;
    if (words[0].empty() || words[0][0] == '-')
        misused("the object comes first");
    options.object = words[0];
    if (words.size() > 1)
        readAction({words.begin() + 1, words.end()}, options);
    return options;
}
