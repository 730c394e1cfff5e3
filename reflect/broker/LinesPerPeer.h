#pragma once

#include <array>

#include "logging/LineLimit.h"
#include "transport/TerminationId.h"

/**
 * Keeps the log lines about what single peers do to a few for each peer. So many peers are kept
 * apart as a process honestly has; who makes up more of them shares one limit. Not synchronized.
 */
class LinesPerPeer {
public:
    /** Whether a line about `peer` may be emitted. If so, `heldBack` tells how many were not since
     * the last that was; always 0 for peers that are kept apart. */
    bool pass(Transport::TerminationId peer, unsigned long& heldBack) {
        heldBack = 0;
        for (Lines& lines : peers_) {
            if (lines.passed == 0)
                lines.peer = peer;
            if (lines.peer == peer)
                return lines.passed < kMostLines && ++lines.passed != 0;
        }
        return others_.pass(heldBack);
    }

private:
    static constexpr unsigned int kMostLines = 3;

    struct Lines {
        Transport::TerminationId peer;
        unsigned int passed = 0;  // 0: the entry is free
    };
    std::array<Lines, 64> peers_;
    Logging::LineLimit others_;
};
