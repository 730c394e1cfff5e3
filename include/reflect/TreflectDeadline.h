#pragma once

#include <chrono>

#include "oswrap/Export.h"

/**
 * Until when the calls are to be answered that a thread makes in a scope:
 *
 *     TreflectDeadline const within(std::chrono::milliseconds(50));
 *     if (lamp.getLevel().code() == TipprmiFailure::kTimedOut) ...
 *
 * A call that waits for another process until then fails with TipprmiFailure::kTimedOut; whether it
 * is served is unknown, and its answer is dropped when it comes. A call that begins later fails at
 * once and is not sent. That holds for searches of objects, for queries of brokers and their
 * counters, and for calls that are made by objects of this process on behalf of this thread, too,
 * and so a nested call gets what is left. In a scope within another one the earlier of the two
 * counts.
 *
 * Not bounded are: calls that nobody answers; registrations of observers of creations and deletions
 * and their end; notices of creations and deletions, notices to observers of calls, and what
 * observers of this process do in them; an object's entry among its parent's children and its end
 * there; what an object of this process does itself; and the time until the thread has the run
 * permission again, which others may keep. Without any deadline a call waits as long as its target
 * lives, for a minute at most.
 *
 * Lives on the stack of one thread.
 */
class REFLECTORB_API TreflectDeadline {
public:
    /** Begins now. */
    explicit TreflectDeadline(std::chrono::nanoseconds left);
    ~TreflectDeadline();
    TreflectDeadline(TreflectDeadline const&) = delete;
    TreflectDeadline& operator=(TreflectDeadline const&) = delete;

    /** How much is left; nothing once it has passed. */
    std::chrono::nanoseconds left() const;

    /** The end of the innermost one of this thread, by OSWrap::Clock::nowNanoseconds; kNever
     * without any. */
    static long long endOfThread();
    static constexpr long long kNever = 0x7FFF'FFFF'FFFF'FFFF;

    /** There are no deadlines for this thread in the scope of this object. */
    class REFLECTORB_API Suspension {
    public:
        Suspension();
        ~Suspension();
        Suspension(Suspension const&) = delete;
        Suspension& operator=(Suspension const&) = delete;

    private:
        TreflectDeadline const* const suspended_;
    };

private:
    TreflectDeadline const* const outer_;
    long long const end_;
};
