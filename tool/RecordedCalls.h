// Recordings as the subcommands use them that read some.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Failure.h"
#include "Output.h"
#include "Recording.h"
#include "Settings.h"

/** A call, and what has come of it. A value. */
struct RecordedCall {
    enum class Fate {
        kDone,     // it has these results; of an operation that has none, it may have been refused
        kRefused,  // it has ended without its results
        kNoEnd     // it was forbidden, or its end is not in the recording
    };
    std::int64_t time = 0;  // microseconds since 1970
    std::string object;
    std::string operation;
    recording::Anys arguments;
    recording::Types argumentTypes;
    Fate fate = Fate::kNoEnd;
    recording::Anys results;
    recording::Types resultTypes;
};
using RecordedCalls = std::vector<RecordedCall>;

/** All calls of a file, in their order; throws a Failure when it cannot be read. That it has been
 * cut off is told. Within a group. */
RecordedCalls readCalls(std::string const& path, Output& output);

/** Whether there is a file of this name that begins as recordings do. */
bool isRecording(std::string const& path);

/** Writes what stands in a file, part by part: each is read in a group, and written when that has
 * been left. */
ExitCode showRecording(std::string const& path, Settings const& settings, Output& output);
