#pragma once

#include <atomic>
#include <cstddef>
#include <vector>

#include "oswrap/AdaptiveWait.h"
#include "oswrap/ConditionVar.h"
#include "reflect/broker/Backlog.h"
#include "transport/AddressedMessage.h"
#include "transport/WorkWait.h"

/**
 * The messages that wait for a broker's workers, first come, first served, and the rule by which
 * the pool of workers grows and shrinks:
 *
 * - A message that finds nobody idle asks for a new worker. One that finds the queue empty wakes an
 *   idle worker; one that finds others waiting wakes nobody, since each taker sees to the next.
 * - A worker that takes a message and leaves others behind wakes an idle worker or, if there is
 *   none, asks for one more.
 * - A worker that comes back and finds three others idle ends.
 *
 * While messages come one at a time, one of the idle workers, the *reader*, takes them in by
 * itself, as the receiving thread would do: it queues them, and takes the first. For all others it
 * is a worker that is idle.
 *
 * What waits is bounded, in all, by sender and by process (see Backlog): what is too much is not
 * kept.
 *
 * The worker count keeps track of all workers, so that a broker that is being deleted can wait for
 * them.
 */
class MessageQueue {
public:
    enum class Need { Nothing, Worker };
    enum class Turn { Serve, End };
    enum class Fate { Kept, TooMuch };
    /** A message that a worker has taken. */
    struct Taken {
        Transport::AddressedMessage message;
        Backlog::Share* share = nullptr;  // until it has been served, or is not going to be
        unsigned int note = 0;            // of who queued it
        bool waits = false;               // to be served
        bool letsGo = false;              // its sender, which was held back, may go on now
        bool isTooMuch = false;           // so much of its sender is being served that this is not
    };
    /** A worker that takes messages, as the queue sees it. */
    class Taker {
    public:
        /** Lines up to serve what has just been taken, with the queue's mutex still held: so
         * messages are served in the order in which they are taken. Must not wait. True when the
         * worker serves at once: then what it has taken waits no more. */
        virtual bool lineUp() = 0;

        Taken taken;

    protected:
        ~Taker() = default;
    };
    struct Pushed {
        Fate fate = Fate::Kept;
        Need need = Need::Nothing;
        bool isMuch = false;  // of this sender, which should be held back
    };

    /** Tells the process that a sender belongs to; 0: none is known. Must not throw. */
    using ProcessOf = int (*)(Transport::TerminationId sender);

    explicit MessageQueue(Transport::Backlog const& most, ProcessOf processOf = &ownerOf)
        : processOf_(processOf), backlog_(most) {}
    MessageQueue(MessageQueue const&) = delete;
    MessageQueue& operator=(MessageQueue const&) = delete;

    /** Has workers without work read. `work` is open until the last worker has ended. */
    void readWith(Transport::WorkWait& work) { work_.store(&work); }

    /** Adds a message, unless that is too much. When a worker is needed, it counts already: start
     * it, or call `workerNotStarted`. A closed queue drops the message. `note` comes with it. */
    Pushed push(Transport::AddressedMessage const& message, unsigned int note = 0,
                Backlog::Bounds bounds = Backlog::Bounds::Heeded);

    /**
     * A worker's wait for its next message, with which it has lined up. `firstPass`: the worker has
     * just been started, and was counted as idle by whoever started it. `need` tells whether to
     * start one more worker. When the answer is `end` the worker is to end. Not a cancellation
     * point for a thread that has disabled cancellation.
     */
    Turn next(bool firstPass, Taker& taker, Need& need);

    /** A worker that has served its message takes the next one if there is one, as with `next`;
     * else false, and nothing is taken. */
    bool nextAtOnce(Taker& taker, Need& need);

    /** A worker begins to serve what it has taken, which waits no more. Answers a sender that was
     * held back and may go on now, or none. */
    Transport::TerminationId begin(Taken& taken);
    /** It has been served. `next` and `nextAtOnce` do that for what a taker has taken before. */
    void end(Taken& taken);
    /** Marks a sender as held back, so that `begin` tells when it may go on; false when nothing of
     * it waits. */
    bool holdBack(Transport::TerminationId sender);
    /** Takes that mark away when so little waits that the sender may go on, or anyway. */
    Backlog::Mark letGo(Transport::TerminationId sender, Backlog::When when);
    /** Whether there are such marks. */
    bool holdsBack() const { return holdsBack_.load(); }

    /** Counts one more worker, which the caller starts although the rule does not ask for it; false
     * when the queue is closed. */
    bool admitWorker();
    /** A worker that `push` or `next` asked for, or that was admitted, could not be started. */
    void workerNotStarted();
    /** The last thing a worker does. */
    void workerEnded();

    /** Drops all messages and sends all workers to their end. */
    void close();
    /** After `close`: returns when no more than `remaining` workers are left. */
    void waitForWorkers(unsigned int remaining);

private:
    /** A ring that grows by doubling and keeps its room. */
    class Ring {
    public:
        bool empty() const { return size_ == 0; }
        /** Makes room for one more; false when memory has run out. */
        bool reserve();
        /** With room for it. */
        void push(Transport::AddressedMessage const& message, Backlog::Share* share,
                  unsigned int note);
        Taken pop();

    private:
        void grow();

        std::vector<Taken> cells_;  // its size is a power of two, or 0
        std::size_t first_ = 0;
        std::size_t size_ = 0;
    };

    /** Whom to wake, after unlocking, for what waits while somebody is idle. */
    enum class Wake { Nobody, Sleeper, Reader };

    /** At most so many workers stay idle. */
    static constexpr unsigned int kMostIdle = 3;

    static int ownerOf(Transport::TerminationId sender);
    Backlog::Share* admit(Transport::AddressedMessage const& message, Backlog::Bounds bounds)
        OSW_REQUIRES(changed_);
    bool mayGoOn() OSW_REQUIRES(changed_);
    Wake takeFront(Taker& taker, Need& need) OSW_REQUIRES(changed_);
    void release(Taken& taken) OSW_REQUIRES(changed_);
    void endServing(Taken& taken) OSW_REQUIRES(changed_);
    Wake wakesOne() OSW_REQUIRES(changed_);
    void wake(Wake whom);
    void awaitMessage() OSW_REQUIRES(changed_);
    void pollOnce() OSW_REQUIRES(changed_);
    void read(Transport::WorkWait& work) OSW_REQUIRES(changed_);
    bool pollRing(Transport::WorkWait& work);
    void sleepAtBells(Transport::WorkWait& work) OSW_REQUIRES(changed_);
    Need addWorker() OSW_REQUIRES(changed_);

    ProcessOf const processOf_;
    /// The queue mutex. Only the permission's queue is locked under it, by those who line up;
    /// nothing is logged or served.
    OSWrap::ConditionVar changed_;
    Ring messages_ OSW_GUARDED_BY(changed_);
    Backlog backlog_ OSW_GUARDED_BY(changed_);
    /// What backlog_ says of it; written under the mutex, read without it.
    std::atomic<bool> holdsBack_{false};
    unsigned int idle_ OSW_GUARDED_BY(changed_) = 0;  // just started workers included
    unsigned int workers_ OSW_GUARDED_BY(changed_) = 0;
    bool closed_ OSW_GUARDED_BY(changed_) = false;
    /// Idle workers that poll, but for the reader. They look at the queue before they sleep, so
    /// while there is one nobody needs to be woken.
    unsigned int polling_ OSW_GUARDED_BY(changed_) = 0;
    unsigned int sleepers_ OSW_GUARDED_BY(changed_) = 0;  // that wait for changed_
    /// None and Asleep are set under the mutex. Awake: it looks at the queue before it sleeps.
    enum class Reader { None, Awake, Asleep };
    std::atomic<Reader> reader_{Reader::None};
    std::atomic<Transport::WorkWait*> work_{nullptr};
    /// Whether there is something to look at; written under the mutex, polled without it.
    std::atomic<bool> ready_{false};
    OSWrap::AdaptiveWait waiting_;  // statistics of the workers' waits
};
