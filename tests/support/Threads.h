#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace testsupport {

/** States of the threads of a process that have this name, as the kernel tells them: 'S' sleeps. */
inline std::string statesOfThreads(std::string const& name, pid_t pid = ::getpid()) {
    std::string states;
    std::error_code gone;
    for (auto const& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", gone)) {
        std::string line;
        std::getline(std::ifstream(task.path() / "stat"), line);
        std::string const mark = " (" + name + ") ";
        if (std::size_t const at = line.find(mark); at != std::string::npos)
            states += line[at + mark.size()];
    }
    return states;
}

}  // namespace testsupport
