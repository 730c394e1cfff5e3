// Lets a dozen processes publish, delete, observe and call each other while some of them are killed
// and started again, and checks that what must hold holds.
//
//   soak [--seconds N] [--seed N] [--actors N]
//
// The same seed makes the same decisions, as far as the order of threads lets it.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include "RendezvousFolder.h"
#include "Supervisor.h"

namespace {

constexpr unsigned int kFewestActors = 4;
constexpr unsigned int kMostActors = 64;

/** False when they make no sense. */
bool read(int count, char** arguments, soak::Options& options) {
    for (int i = 1; i < count; i += 2) {
        std::string const name = arguments[i];
        unsigned int* const value = name == "--seconds"  ? &options.seconds
                                    : name == "--seed"   ? &options.seed
                                    : name == "--actors" ? &options.actors
                                                         : nullptr;
        char* end = nullptr;
        if (!value || i + 1 == count)
            return false;
        *value = static_cast<unsigned int>(std::strtoul(arguments[i + 1], &end, 10));
        if (end == arguments[i + 1] || *end != '\0')
            return false;
    }
    return options.actors >= kFewestActors && options.actors <= kMostActors;
}

}  // namespace

int main(int count, char** arguments) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    soak::Options options;
    options.seed = std::random_device()() % 1'000'000;
    if (!read(count, arguments, options)) {
        std::fprintf(stderr, "usage: soak [--seconds N] [--seed N] [--actors %u..%u]\n",
                     kFewestActors, kMostActors);
        return 2;
    }
    std::printf("soak: seed %u, %u actors, %u s\n", options.seed, options.actors, options.seconds);
    std::string folder =
        (std::filesystem::temp_directory_path() / "reflectorb-soak-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        std::perror(folder.c_str());
        return 2;
    }
    options.folder = folder;
    testsupport::RendezvousFolder const rendezvous;
    bool const sound = soak::Supervisor(options).run();
    if (sound)
        std::filesystem::remove_all(folder);
    std::printf("soak: %s with seed %u\n", sound ? "ok" : "FAILED", options.seed);
    return sound ? EXIT_SUCCESS : EXIT_FAILURE;
}
