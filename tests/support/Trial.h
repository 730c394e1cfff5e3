// What the programs share that have many processes run for a while, and judge them.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <variant>

#include "ChildProgram.h"

namespace testsupport {

/** Where the value of an option goes: a number, or a text. */
using OptionValue = std::variant<unsigned int*, std::string*>;

/** Reads options, each with its value behind it; false when they make no sense. */
inline bool readOptions(int count, char** arguments,
                        std::map<std::string, OptionValue> const& options) {
    for (int i = 1; i < count; i += 2) {
        auto const option = options.find(arguments[i]);
        if (option == options.end() || i + 1 == count)
            return false;
        if (auto* const number = std::get_if<unsigned int*>(&option->second))
            **number = static_cast<unsigned int>(std::atoi(arguments[i + 1]));
        else
            *std::get<std::string*>(option->second) = arguments[i + 1];
    }
    return true;
}

/** Has `judge` run with a folder for journals, logs and stacks, which stays unless it is content;
 * the program's exit code. */
template <class Judge>
int runTrial(std::string const& name, unsigned int seed, Judge const& judge) {
    std::string folder =
        (std::filesystem::temp_directory_path() / ("reflectorb-" + name + "-XXXXXX")).string();
    if (mkdtemp(folder.data()) == nullptr) {
        std::perror(folder.c_str());
        return 2;
    }
    bool const sound = judge(folder);
    if (sound)
        std::filesystem::remove_all(folder);
    std::printf("%s: %s with seed %u\n", name.c_str(), sound ? "ok" : "FAILED", seed);
    return sound ? EXIT_SUCCESS : EXIT_FAILURE;
}

inline void keepLog(ChildProgram const& child, std::string const& path) {
    std::ofstream file(path);
    for (std::string const& line : child.errorLines())
        file << line << "\n";
}

}  // namespace testsupport
