#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "logging/Log.h"
#include "tests/support/RendezvousFolder.h"

/** What fuzz targets have in common. */
namespace fuzz {

/**
 * Streams take their buffers from the unit's broker, which gets a rendezvous folder of its own.
 * Records are formatted, since that is worth fuzzing, but not shown. Call it first.
 */
inline void startProcess() {
    static testsupport::RendezvousFolder const folder;  // older than the broker, so it outlives it
    Logging::setThreshold(6);
    Logging::setSink([](Logging::Record const&, void*) {}, nullptr);
}

/** What runs one input. */
using Target = void (*)(std::uint8_t const* data, std::size_t size);

/** Makes a target known to the program that replays corpora. */
void enrol(char const* name, Target target);

}  // namespace fuzz

/** Defines the target `name`, a function's: for libFuzzer, or for the replay of what it found. */
#ifdef FUZZ_REPLAY
#define FUZZ_TARGET(name, function)                                     \
    namespace {                                                         \
    bool const name##IsEnrolled = (fuzz::enrol(#name, function), true); \
    }
#else
#define FUZZ_TARGET(name, function)                                                     \
    extern "C" int LLVMFuzzerInitialize(int*, char***) {                                \
        fuzz::startProcess();                                                           \
        return 0;                                                                       \
    }                                                                                   \
    extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) { \
        function(data, size);                                                           \
        return 0;                                                                       \
    }
#endif
