// Who waits for whom.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "Processes.h"
#include "Tool.h"

/** An outstanding call: a thread of a process waits for another one. A value. */
struct WaitingCall {
    std::string from;  // the process
    unsigned int thread = 0;
    std::string to;      // likewise
    std::string what;    // "call", "search", "notice" or "query"
    std::string object;  // its name, as far as it is known
    std::string operation;
    unsigned int milliseconds = 0;

    Json json() const;
};

/** What a process tells of such a call. `object`: its name; empty when that is not known. */
WaitingCall waitingCall(std::string const& from, processobject::Call const& call,
                        std::string const& to, std::string const& object);
/** All of them, over all processes that tell. */
std::vector<WaitingCall> waitingCalls(Tool& tool, Processes const& processes, Missing& missing);

/** Groups of processes each of which waits for another one of the group, in a circle; each sorted.
 */
std::vector<std::set<std::string>> cyclesOf(std::vector<WaitingCall> const& calls);
