#include "TestPrograms.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace testsupport {
namespace {

std::vector<std::string> splitAtColons(std::string const& text) {
    std::vector<std::string> parts;
    std::istringstream input(text);
    for (std::string part; std::getline(input, part, ':');) {
        parts.push_back(part);
    }
    return parts;
}

std::string peerDirectory() {
    char const* fromEnvironment = std::getenv("REFLECTORB_PEER_DIR");
    return fromEnvironment != nullptr ? fromEnvironment : TEST_PEER_DIR;
}

}  // namespace

std::vector<std::string> programCommand(std::string const& name) {
    std::vector<std::string> command = splitAtColons(TEST_EMULATOR);
    command.push_back(std::string(TEST_PROGRAM_DIR) + "/" + name);
    return command;
}

std::vector<std::string> peerProgramCommand(std::string const& name) {
    std::string const directory = peerDirectory();
    if (directory.empty()) {
        return {};
    }
    std::string const path = directory + "/tests/programs/" + name;
    if (access(path.c_str(), X_OK) != 0) {
        return {};
    }
    return {path};
}

}  // namespace testsupport
