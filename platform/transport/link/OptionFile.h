#pragma once

#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

namespace Link {

/** Says file, line and what is wrong there. */
class OptionFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/**
 * Takes from a file what the command line, which has been parsed, has left open. A line is
 * `key = value`, the key that of an option without its dashes; it is empty or begins with # where
 * it says nothing. A flag is true or false. Nothing is done where there is no file, unless there
 * must be one. Throws OptionFileError: for a line of another form, for an option that is unknown,
 * stands there twice, or has a wrong value, and for a file that cannot be read.
 */
void readOptionFile(CLI::App& app, std::string const& path, bool mustBeThere);

}  // namespace Link
