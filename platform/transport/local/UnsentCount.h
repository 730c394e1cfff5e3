#pragma once

#include <atomic>
#include <cstddef>

#include "oswrap/ConditionVar.h"

namespace Transport {

/**
 * Whether a termination still sends, and how many of its messages wait in the queues of its
 * channels. The two are ordered: whoever takes the last message out and whoever waits for that
 * after `refuseSending` never miss each other. Any thread.
 */
class UnsentCount {
public:
    UnsentCount() = default;
    UnsentCount(UnsentCount const&) = delete;
    UnsentCount& operator=(UnsentCount const&) = delete;

    std::size_t count() const { return count_.load(); }
    bool sending() const { return sending_.load(); }
    void refuseSending() { sending_.store(false); }
    void more() { count_.fetch_add(1); }
    void less(std::size_t count);
    /** Waits until nothing waits any more, or nothing has left the queues for `idle` nanoseconds,
     * or for `most` nanoseconds. */
    void wait(long long idle, long long most);
    /** Nothing is sent any more: nobody waits any longer. */
    void end();

private:
    std::atomic<bool> sending_{true};
    std::atomic<std::size_t> count_{0};
    OSWrap::ConditionVar change_;  // a leaf: signalled when ended_ is set or count_ falls to 0
    bool ended_ OSW_GUARDED_BY(change_) = false;
};

}  // namespace Transport
