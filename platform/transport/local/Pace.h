#pragma once

#include <algorithm>
#include <atomic>

namespace Transport {

/**
 * Whether messages come one at a time, each after an answer to the one before. So many have to in a
 * row, and twice as many with each time that it did not last: to change who reads costs more than
 * a few messages gain. Statistics; noted by one thread at a time, asked by any.
 */
class Pace {
public:
    /** A message has come: in turn, or while there was no answer to the one before. */
    void note(bool inTurn) {
        if (!inTurn || interrupted_.load(std::memory_order_relaxed))
            begin();
        else if (inTurn_ < kLasting)
            count();
    }
    /** What is heard now is something else. Any thread. */
    void interrupt() {
        interrupted_.store(true, std::memory_order_relaxed);
        oneAtATime_.store(false, std::memory_order_relaxed);
    }
    bool oneAtATime() const { return oneAtATime_.load(std::memory_order_relaxed); }

private:
    static constexpr int kLeast = 8;
    static constexpr int kMost = 1024;
    static constexpr int kLasting = 4 * kMost;

    void count() {
        ++inTurn_;
        if (inTurn_ == needed_)
            oneAtATime_.store(true, std::memory_order_relaxed);
        if (inTurn_ == kLasting)
            needed_ = kLeast;
    }
    void begin() {
        interrupted_.store(false, std::memory_order_relaxed);
        oneAtATime_.store(false, std::memory_order_relaxed);
        if (inTurn_ >= needed_)
            needed_ = std::min(2 * needed_, kMost);
        inTurn_ = 0;
    }

    int inTurn_ = 0;       // in a row, up to kLasting
    int needed_ = kLeast;  // until they come one at a time
    std::atomic<bool> oneAtATime_{false};
    std::atomic<bool> interrupted_{false};
};

}  // namespace Transport
