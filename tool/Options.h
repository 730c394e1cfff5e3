// What the command line of a subcommand has.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

/** Declares the options and words of one subcommand. The variables are set when the command line is
 * read, and must live until then. */
class Options {
public:
    explicit Options(CLI::App& command) : command_(command) {}

    /** `names`: "--all" or "-a,--all". */
    void flag(char const* names, bool& value, char const* help);
    void text(char const* names, char const* valueName, std::string& value, char const* help);
    void number(char const* names, char const* valueName, unsigned int& value, char const* help);
    /** Words without names; a command has one such list. "-" among them is replaced by the lines of
     * standard input. */
    void words(char const* name, std::vector<std::string>& values, bool required, char const* help);
    void word(char const* name, std::string& value, bool required, char const* help);

private:
    CLI::App& command_;
};
