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

/** All of them, over all processes that tell. */
std::vector<WaitingCall> waitingCalls(Tool& tool, Processes const& processes, Missing& missing);

/** Groups of processes each of which waits for another one of the group, in a circle; each sorted.
 */
std::vector<std::set<std::string>> cyclesOf(std::vector<WaitingCall> const& calls);
