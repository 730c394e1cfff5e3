// What a process tells of itself at a moment.
#pragma once

#include <reflect.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "Processes.h"

/** A value. The counters start afresh when somebody takes them, see TreflectORB::getPerfCnts. */
struct Facts {
    processobject::Identity identity;
    processobject::Usage usage;
    std::vector<processobject::Traffic> traffic;
    std::vector<processobject::Call> calls;

    std::uint64_t sent() const;
    std::uint64_t failed() const;
};

/** Asks a process object; nothing when it does not answer to the end. */
std::optional<Facts> factsOf(TreflectProcessClient const& client);

/** How a process is, in a word or a few: "ok", "stopped", "does not answer", "without process
 * object". */
char const* stateOf(Process const& process, Answer<Facts> const& facts);
/** All of that but traffic and calls; of one that does not tell what is known nevertheless. */
Json jsonOf(Process const& process, Answer<Facts> const& facts);
/** How much more there is a second of what was counted. */
double rateOf(std::uint64_t before, std::uint64_t after, double seconds);
