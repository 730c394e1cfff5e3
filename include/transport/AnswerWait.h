#pragma once

#include <memory>

#include "oswrap/Export.h"
#include "transport/AddressedMessage.h"
#include "transport/TerminationId.h"

namespace Transport {

class Channel;

/**
 * A request and the wait for its answer, which comes to the same termination. While the receiving
 * thread has nothing to look at, the thread that waits may take in what comes from there by itself,
 * up to its own answer: that spares a change of threads. Only for a termination whose `receive` may
 * run on threads that send its requests, waits for nothing, and does not end the termination.
 *
 * An object belongs to one thread and one request.
 */
class REFLECTORB_API AnswerWait {
public:
    /** What the thread waits for. */
    class Awaited {
    public:
        /** Asked after each message that the thread has taken in. */
        virtual bool hasCome() const = 0;

    protected:
        ~Awaited() = default;
    };

    AnswerWait();
    ~AnswerWait();
    AnswerWait(AnswerWait const&) = delete;
    AnswerWait& operator=(AnswerWait const&) = delete;

    /** As Termination::issue, once. */
    int issue(AddressedMessage& message, TerminationId destination);

    /** Whether it is worth while to try a Reading now. */
    bool mayRead() const;
    /** Wakes the thread in `Reading::sleep`, which is there or about to be. Any thread, while it
     * cannot leave there; never blocks. */
    void wake() const;

    /**
     * The time in which the thread takes in messages by itself, if it may. Not cancellable inside,
     * but in `sleep`. Messages go through the termination's `receive` on this thread, which is the
     * receiving thread meanwhile.
     */
    class REFLECTORB_API Reading {
    public:
        /** Begins it unless the receiving thread or somebody else is at it. Never waits. */
        explicit Reading(AnswerWait& wait);
        ~Reading();
        Reading(Reading const&) = delete;
        Reading& operator=(Reading const&) = delete;

        /** Whether it has begun and not ended. */
        bool goesOn() const { return channel_ != nullptr; }
        /** Whether `takeIn` has something to do. For polling, while it goes on. */
        bool hasData() const;
        /** Takes in a bounded number of messages, none behind the awaited one. May end the reading:
         * the receiving thread goes on then. */
        void takeIn(Awaited const& awaited);
        /** Sleeps until something comes, `wake` is called or so many nanoseconds have passed, or
         * for no reason. A cancellation point. */
        void sleep(long long nanoseconds);
        /** Ends the reading, if it goes on. */
        void end();

    private:
        class Awake;
        class AsItWas;

        Channel* channel_ = nullptr;  // while the reading goes on
        int cancelState_ = 0;         // of the thread before
    };

private:
    std::shared_ptr<Channel> channel_;  // to the destination, once issued over one
};

}  // namespace Transport
