// Where tests find the programs that they start as child processes.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

/// The command that starts the test program `name` of this build (see `reflectorb_test_program` in
/// cmake/ReflectOrbTest.cmake), ready for execvp: the program's absolute path, and before it the
/// emulator where programs of this build need one.
std::vector<std::string> programCommand(std::string const& name);

/// The same for the build of another word size that stands beside this one. Its build tree is
/// named by the environment variable `REFLECTORB_PEER_DIR` or, failing that, by the CMake variable
/// of that name. Empty if there is none, or if it lacks the program.
std::vector<std::string> peerProgramCommand(std::string const& name);

}  // namespace testsupport
