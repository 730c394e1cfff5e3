#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "logging/Log.h"

/** What fuzz targets and seed writers have in common. */
namespace fuzz {

/**
 * Streams take their buffers from the unit's broker, which gets a rendezvous folder of its own.
 * Records are formatted, since that is worth fuzzing, but not shown. Call it first.
 */
inline void startProcess() {
    static std::string folder = (std::filesystem::temp_directory_path() / "fuzz-XXXXXX").string();
    if (!mkdtemp(folder.data()))
        std::abort();
    setenv("TRANSPORT_DIR", folder.c_str(), 1);
    // Registered before the broker exists, so it runs after the broker's own end.
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    });
    Logging::setThreshold(6);
    Logging::setSink([](Logging::Record const&, void*) {}, nullptr);
}

/** Writes seeds into a folder, one file each. */
class SeedFolder {
public:
    /** Takes the arguments of main. */
    SeedFolder(int argc, char** argv) {
        if (argc != 2) {
            std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
            std::exit(2);
        }
        path_ = argv[1];
    }

    void write(std::string const& name, std::string const& bytes) const {
        std::FILE* const file = std::fopen((path_ / name).c_str(), "wb");
        bool const written =
            file && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
        if (!file || std::fclose(file) != 0 || !written) {
            std::perror(name.c_str());
            std::exit(1);
        }
    }

private:
    std::filesystem::path path_;
};

}  // namespace fuzz
