#include "TestPrograms.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace testsupport {
std::vector<std::string> programCommand(std::string const& name) {
    std::vector<std::string> command;
    std::istringstream emulator(TEST_EMULATOR);
    for (std::string part; std::getline(emulator, part, ':');)
        command.push_back(part);
    command.push_back(std::string(TEST_PROGRAM_DIR) + "/" + name);
    return command;
}

std::vector<std::string> peerProgramCommand(std::string const& name) {
    char const* const fromEnvironment = std::getenv("REFLECTORB_PEER_DIR");
    std::string const directory = fromEnvironment ? fromEnvironment : TEST_PEER_DIR;
    std::string const path = directory + "/tests/programs/" + name;
    bool const isThere = !directory.empty() && access(path.c_str(), X_OK) == 0;
    return isThere ? std::vector<std::string>{path} : std::vector<std::string>();
}

}  // namespace testsupport
