#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <iostream>

#include "Table.h"

namespace {

constexpr char kFooter[] =
    "An OBJECT is an absolute name such as /house/hall, or an identifier such as house.hall, or\n"
    "name@node for one of the whole node. In both * stands for any characters but \"/\", ** for "
    "any,\n"
    "and ? for one. A member is OBJECT/MEMBER: /house/*/Level. Values are written 42, true, text,\n"
    "\"text, quoted\", [1, 2] for a sequence, {a: 1, b: true} for a struct. \"-\" in place of "
    "words\n"
    "reads them from standard input, a line each; behind \"--\" words may begin with \"-\".\n\n"
    "Exit codes: 0 done, 1 refused by the object, 2 wrong use, 3 not there, 4 vetoed, 5 timed "
    "out,\n"
    "6 no access or wrong set-up.";

/** Stands around words that the parser would take for something else: lists in brackets, options.
 */
constexpr char kPlain = '\x01';

/** The words for the parser. Behind "--" they are no options, wherever that stands. */
std::vector<std::string> wordsFor(int argc, char** argv) {
    std::vector<std::string> words;
    bool areOptionsOver = false;
    for (int i = 0; i < argc; ++i) {
        std::string word = argv[i];
        bool const isEnd = word == "--" && !areOptionsOver;
        areOptionsOver = areOptionsOver || isEnd;
        if (isEnd)
            continue;
        if (areOptionsOver && !word.empty() && word.front() == '-')
            word.insert(word.begin(), kPlain);
        if (!word.empty() && word.front() == '[' && word.back() == ']')
            word += kPlain;
        words.push_back(std::move(word));
    }
    return words;
}

std::string plain(std::string word) {
    if (!word.empty() && word.back() == kPlain)
        word.pop_back();
    if (!word.empty() && word.front() == kPlain)
        word.erase(word.begin());
    return word;
}

/** Replaces "-" by the lines of standard input. */
std::vector<std::string> withInput(std::vector<std::string> const& words) {
    std::vector<std::string> all;
    for (std::string const& word : words) {
        if (word != "-") {
            all.push_back(plain(word));
            continue;
        }
        for (std::string line; std::getline(std::cin, line);)
            all.push_back(line);
    }
    return all;
}

[[noreturn]] void refuse(std::string const& what, std::string const& command) {
    std::cerr << "reflectorb: " << cut(what, 0) << "; reflectorb " << command
              << (command.empty() ? "" : " ") << "--help tells more\n";
    std::exit(static_cast<int>(ExitCode::kWrongUse));
}

/** The parser would only say that some subcommand is wanted. */
void refuseUnknown(std::vector<std::string> const& words, Commands const& commands) {
    bool const isName = words.size() > 1 && words[1].find_first_of("-\x01") != 0;
    if (!isName || std::any_of(commands.begin(), commands.end(),
                               [&](auto const& one) { return words[1] == one->name(); }))
        return;
    refuse("there is no subcommand \"" + plain(words[1]) + "\"", "");
}

void declareSettings(CLI::App& app, Settings& settings) {
    app.add_flag("--json", settings.json, "Write JSON: one document, or one line per event");
    app.add_flag("--full", settings.full, "Cut nothing to the width of the terminal");
    app.add_flag("--verbose", settings.verbose, "Write the library's log, too");
    app.add_option("--timeout", settings.timeout, "How long a process may take to answer")
        ->capture_default_str()
        ->type_name("SECONDS")
        ->check([](std::string const& text) {
            char* end = nullptr;
            double const seconds = std::strtod(text.c_str(), &end);
            bool const isOne =
                end != text.c_str() && *end == '\0' && seconds >= 0.01 && seconds <= 50;
            return isOne ? std::string() : "\"" + text + "\" is not from 0.01 to 50 seconds";
        });
}

}  // namespace

void Options::flag(char const* names, bool& value, char const* help) {
    command_.add_flag(names, value, help);
}

void Options::text(char const* names, char const* valueName, std::string& value, char const* help) {
    command_
        .add_option_function<std::string>(
            names, [&value](std::string const& word) { value = plain(word); }, help)
        ->type_name(valueName);
}

void Options::number(char const* names, char const* valueName, unsigned int& value,
                     char const* help) {
    command_.add_option(names, value, help)->type_name(valueName);
}

void Options::words(char const* name, std::vector<std::string>& values, bool required,
                    char const* help) {
    command_.add_option(name, values, help)->type_name("")->required(required);
    command_.parse_complete_callback([&values] { values = withInput(values); });
}

void Options::word(char const* name, std::string& value, bool required, char const* help) {
    command_
        .add_option_function<std::string>(
            name, [&value](std::string const& word) { value = plain(word); }, help)
        ->type_name("")
        ->required(required);
}

Command& readCommandLine(int argc, char** argv, Commands const& commands, Settings& settings) {
    CLI::App app("Looks at a running platform, and changes it with care.", "reflectorb");
    app.set_version_flag("--version", "reflectorb " REFLECTORB_VERSION);
    app.footer(kFooter);
    app.require_subcommand(1);
    Command* chosen = nullptr;
    for (auto const& command : commands) {
        CLI::App& sub = *app.add_subcommand(command->name(), command->help());
        sub.group(command->isHidden() ? "" : "Subcommands");
        Options options(sub);
        command->declare(options);
        declareSettings(sub, settings);
        sub.callback([&chosen, &command] { chosen = command.get(); });
    }
    std::vector<std::string> words = wordsFor(argc, argv);
    refuseUnknown(words, commands);
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    try {
        app.parse(static_cast<int>(pointers.size()), pointers.data());
    } catch (CLI::Success const& asked) {
        std::exit(app.exit(asked));
    } catch (CLI::ParseError const& mistake) {
        bool const isOfOne = words.size() > 1 && words[1].rfind('-', 0) != 0;
        refuse(mistake.what(), isOfOne ? words[1] : "");
    }
    return *chosen;
}
