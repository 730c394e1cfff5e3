// Recordings as the subcommands use them that read some.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CallObserver.h"
#include "Failure.h"
#include "Output.h"
#include "Recording.h"

/** A call, and what has come of it. A value. */
struct RecordedCall {
    std::int64_t time = 0;  // microseconds since 1970
    std::string object;
    std::string operation;
    std::string caller;        // the process; empty when it is not known
    std::size_t position = 0;  // how many calls had begun ahead of it
    recording::Anys arguments;
    recording::Types argumentTypes;
    std::optional<Fate> fate = {};  // nothing when its end is not in the recording
    std::size_t begunUntilEnd = 0;  // how many calls had begun when it ended
    recording::Anys results = {};
    recording::Types resultTypes = {};
    std::string refusal = {};  // in words; empty when it was not refused
};
using RecordedCalls = std::vector<RecordedCall>;

/** All calls of a file, in their order; throws a Failure when it cannot be read. That it has been
 * cut off is told. Within a group. */
RecordedCalls readCalls(std::string const& path, Output& output);

/** Whether there is a file of this name that begins as recordings do, or breaks off there. */
bool isRecording(std::string const& path);

/** Writes what stands in a file, part by part, without a group. */
ExitCode showRecording(std::string const& path, Output& output);
