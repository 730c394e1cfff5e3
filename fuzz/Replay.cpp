// Gives a target every file of a folder, once each: inputs that say something about the target, and
// all that have ever made it fail. usage: fuzz_replay TARGET FOLDER
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

#include "FuzzProcess.h"

namespace {

std::map<std::string, fuzz::Target>& targets() {
    static std::map<std::string, fuzz::Target> all;
    return all;
}

std::vector<char> contentsOf(std::filesystem::path const& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

void fuzz::enrol(char const* name, Target target) {
    targets()[name] = target;
}

int main(int argc, char** argv) {
    auto const target = argc == 3 ? targets().find(argv[1]) : targets().end();
    if (target == targets().end()) {
        std::fprintf(stderr, "usage: fuzz_replay TARGET FOLDER\n");
        return 2;
    }
    fuzz::startProcess();
    int count = 0;
    for (auto const& entry : std::filesystem::directory_iterator(argv[2])) {
        std::printf("%s\n", entry.path().filename().c_str());
        std::fflush(stdout);
        std::vector<char> const input = contentsOf(entry.path());
        target->second(reinterpret_cast<std::uint8_t const*>(input.data()), input.size());
        ++count;
    }
    std::printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
