#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <memory>

#include "oswrap/ConditionVar.h"
#include "reflect/TreflectORB.h"

/**
 * How the brokers of the process are made and deleted. One object, never destroyed.
 *
 * A broker that has been deleted is retired, but its memory is never freed: pointers to brokers are
 * handed out without a count, so any thread may still have one in its hand, about to call through
 * it, and only a broker that is there can turn it away. What is kept is small: its threads,
 * descriptors, queue and table of requests have gone.
 *
 * Deletion of the brokers, in phases. Two for all of them:
 *  1. Close their calls: nothing is sent any more, and whoever waits for a response is woken with a
 *     failure.
 *  2. The deleting thread gives up the run permission, all levels of it, until the end.
 * Then for one after the other:
 *  3. Stop the termination.
 *  4. Close and empty the message queue, wait for the workers (but for oneself); end the thread
 *     that tells of other brokers (but not from within it).
 *  5. Wait until nobody is inside a call. Calls that come after the first phase do not get inside.
 *  6. Under the run permission, tell the server objects that they have no broker any more, and take
 *     the broker out of the table of those that getInstance finds.
 */
class BrokerLifecycle {
public:
    static BrokerLifecycle& instance();

    /** See TreflectORB::getInstance; `ns` is in range. */
    TreflectORB* getOrCreate(NamespaceId ns);
    /** See TreflectORB::prepareForDeletion. */
    void deleteAll();
    /** The same at the end of the process: makes an end of brokers for ever, and waits for no more
     * than a second in each phase. A deletion that another thread has begun is waited for, as long.
     * Only the first call has an effect. */
    void deleteAllAtExit();
    /** Whether there is or was a broker. */
    bool hadBrokers() const { return process_ != 0; }

    /** Whether the process is ending and its brokers could not be deleted in time. Somebody may
     * then hold the run permission for ever, and destructors must not wait for it. */
    bool isAbandoned() const { return abandoned_.load(std::memory_order_acquire); }

private:
    class Pace;
    class DeletionAtExit;
    class Creation;

    BrokerLifecycle();

    bool mayCreate(NamespaceId ns);
    TreflectORB* create(NamespaceId ns);
    static void undo(TreflectORB& orb);
    void awaitCreation() OSW_REQUIRES(changed_);
    TreflectORB* brokerOf(std::size_t index);
    bool isForkedChild() const;
    bool awaitOtherDeletion();
    bool deleteAllWatched();
    void closeAllCalls();
    /** `served`: the broker whose worker asks for the deletion, or null. */
    void deleteEach(TreflectORB const* served, Pace& pace);
    void deleteOne(std::size_t index, TreflectORB& orb, TreflectORB const* served, Pace& pace);
    static void silence(TreflectORB& orb);
    static void drain(TreflectORB& orb, TreflectORB const* served);
    static void endPresence(TreflectORB& orb);
    static void awaitLeaving(TreflectORB& orb);
    void retire(std::size_t index, TreflectORB& orb) OSW_REQUIRES_PERMISSION;

    /// A leaf lock, taken with or without the run permission; signalled when a creation is over.
    /// Not held while a broker is made, which takes 100 ms and more and logs: a log sink may come
    /// back here.
    OSWrap::ConditionVar changed_;
    /// The thread that makes a broker, one at a time; 0: nobody. While it does, it takes no lock
    /// that a thread which waits for it may hold.
    unsigned long creator_ OSW_GUARDED_BY(changed_) = 0;
    TreflectORB const* retired_ OSW_GUARDED_BY(changed_) = nullptr;  // the last one, see Parts
    OSWrap::ConditionVar deletionOver_;                              // a leaf lock
    std::atomic<bool> deleting_{false};                              // cleared under deletionOver_
    std::atomic<bool> exiting_{false};
    std::atomic<bool> abandoned_{false};
    std::atomic<pid_t> process_{0};  // that the brokers belong to; a forked child gets none
};
