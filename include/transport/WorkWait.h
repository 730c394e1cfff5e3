#pragma once

#include <cstdint>
#include <memory>

#include "oswrap/Export.h"
#include "transport/TerminationId.h"

namespace Transport {

class Channel;
class Receiver;

/**
 * The wait of the threads that serve what comes to a termination. While messages come one at a
 * time, each after an answer to the one before, one of these threads that has nothing to do may
 * take in the next one by itself, in place of the receiving thread: that spares a change of
 * threads. Only for a termination that has called TerminationImpl::readByWorkers, and whose
 * `receive` may run on such threads, waits for nothing, and does not end the termination.
 */
class REFLECTORB_API WorkWait {
public:
    WorkWait();
    ~WorkWait();
    WorkWait(WorkWait const&) = delete;
    WorkWait& operator=(WorkWait const&) = delete;

    /** For a termination of this process that has been started. Before all else, once. */
    void open(TerminationId own);
    /** Gives back what the waits took; nobody waits any more, or will. */
    void close();

    // ---- Any thread, while it is open
    /** Whether it is worth while for a thread without work to read now. */
    bool mayRead() const;
    /** Wakes the thread in `sleep`, or the next one there. Never blocks. */
    void wake() const;

    // ---- One thread at a time, where `mayRead`. Messages go through the termination's `receive`
    // on this thread, which is the receiving thread meanwhile.
    /** The time in which the thread looks at what comes from who has sent last, if it may. */
    class REFLECTORB_API Reading {
    public:
        /** Begins it unless the receiving thread or somebody else is at it. Never waits. */
        explicit Reading(WorkWait& wait);
        ~Reading();
        Reading(Reading const&) = delete;
        Reading& operator=(Reading const&) = delete;

        /** Whether there is something to do for `takeIn`, or others want to read. For polling. */
        bool hasData() const;
        /** Takes in a bounded number of messages. Ends the reading. */
        void takeIn();

    private:
        WorkWait& wait_;
        bool goesOn_ = false;
    };
    /** Sleeps until something comes from anybody, `wake` is called, or for no reason. */
    void sleep();
    /** Always after `sleep`: takes in a bounded number of messages of each that has rung. */
    void takeInRung();

private:
    static constexpr int kMostRung = 32;

    bool takeIn(Channel& channel) const;
    void hearAll();
    void hear(std::uint32_t token);

    std::shared_ptr<Receiver> receiver_;  // while it is open, and may be waited for
    // Of the one thread.
    std::shared_ptr<Channel> channel_;  // of who has sent last, as far as is known
    std::uint32_t rung_[kMostRung] = {};
    int manyRung_ = 0;
};

}  // namespace Transport
