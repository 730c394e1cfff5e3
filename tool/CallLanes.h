// Which calls of a recording may be made when.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "RecordedCalls.h"

/**
 * Has calls made in the order of a recording. Those of one caller follow each other, unless they
 * overlapped then; those of different callers are independent, but what was over before a call
 * began is waited for, as long as a call may take: one that hangs now then holds up only what its
 * caller did next.
 *
 * One thread adds the calls, in their order, others take and finish them.
 */
class CallLanes {
public:
    /** `calls` outlives it. `patience`: for one call. */
    CallLanes(RecordedCalls const& calls, std::chrono::nanoseconds patience)
        : calls_(calls), patience_(patience) {}
    CallLanes(CallLanes const&) = delete;
    CallLanes& operator=(CallLanes const&) = delete;

    /** Waits until the calls are over that were over when this one began; not for those of a caller
     * who has let himself be waited for too long, until one of his calls is answered. */
    void awaitThoseBefore(std::size_t call);
    void add(std::size_t call);
    /** Says that there will be no more, and waits until all are finished, or it is stopped. */
    void finishAll();
    /** Nothing more is taken. */
    void stop();

    /** Waits for a call that may be made; nothing when there will be none any more. */
    std::optional<std::size_t> take();
    void finish(std::size_t call, bool hasTimedOut);
    /** Whether calls wait for somebody who takes them. */
    bool lacksTakers() const;

private:
    /** The calls of one caller that are not finished. */
    struct Lane {
        std::vector<std::size_t> begun = {};  // may be made, or are being made
        std::deque<std::size_t> waiting = {};
    };

    bool isOverBefore(std::size_t call, std::size_t other) const;
    bool isAnyOverBefore(Lane const& lane, std::size_t call) const;
    bool mayBegin(Lane const& lane, std::size_t call) const;
    void advanceLocked(Lane& lane);

    RecordedCalls const& calls_;
    std::chrono::nanoseconds const patience_;
    mutable std::mutex mutex_;  // a leaf
    std::condition_variable changed_;
    // Guarded by mutex_, as all up to the end.
    std::map<std::string, Lane> lanes_;  // by callers; none is empty
    std::set<std::string> late_;         // callers for whom nobody else waits
    std::deque<std::size_t> ready_;      // may be made, and nobody has taken them yet
    std::size_t idle_ = 0;               // threads that wait for one
    bool isClosed_ = false;
    bool isStopped_ = false;
};
