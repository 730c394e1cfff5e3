#include "platform/transport/link/OptionFile.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>

namespace Link {
namespace {

/** The option that a key names; throws CLI::Error when there is none. */
CLI::Option& optionOf(CLI::App& app, std::string const& key) {
    CLI::Option* const option = app.get_option_no_throw("--" + key);
    if (key.empty() || option == nullptr || !option->get_configurable())
        throw CLI::ConfigError("there is no option \"" + key + "\"");
    return *option;
}

/** Throws CLI::Error. `known` has the keys of the lines before. */
void takeLine(CLI::App& app, std::string const& line, std::set<std::string>& known) {
    std::size_t const equals = line.find('=');
    if (equals == std::string::npos)
        throw CLI::ConfigError("\"" + line + "\" is not \"key = value\"");
    std::string const key = CLI::detail::trim_copy(line.substr(0, equals));
    std::string const value = CLI::detail::trim_copy(line.substr(equals + 1));
    CLI::Option& option = optionOf(app, key);
    if (!known.insert(key).second)
        throw CLI::ConfigError("\"" + key + "\" stands here twice");
    if (value.empty())
        throw CLI::ConfigError("\"" + key + "\" has no value");
    if (option.count() > 0)
        return;  // the command line has said it
    option.add_result(value);
    option.run_callback();
}

}  // namespace

void readOptionFile(CLI::App& app, std::string const& path, bool mustBeThere) {
    errno = 0;
    std::ifstream file(path);
    if (!file && errno == ENOENT && !mustBeThere)
        return;
    std::set<std::string> known;
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        CLI::detail::trim(line);
        if (line.empty() || line.front() == '#')
            continue;
        try {
            takeLine(app, line, known);
        } catch (CLI::Error const& error) {
            throw OptionFileError(path + ":" + std::to_string(number) + ": " + error.what());
        }
    }
    if (!file.eof() || file.bad())
        throw OptionFileError(path + ": " + std::strerror(errno));
}

}  // namespace Link
