#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>

#include "oswrap/AdaptiveWait.h"
#include "oswrap/ConditionVar.h"
#include "reflect/TreflectDeadline.h"
#include "transport/AnswerWait.h"
#include "transport/TerminationId.h"

namespace handlerthreads {
struct PermissionWaiter;
}
class TreflectMessage;
class TreflectORB;

/**
 * The request that a thread is waiting on. One per calling thread, made on its first call, reused
 * for every further one, and passed on to another thread when this one ends: a record is never
 * freed, so that its owner can be woken without any lock held. A signal that comes late wakes the
 * next owner for nothing, who looks and sleeps again.
 *
 * Others reach a record only through a broker's table of outstanding requests: whoever takes it out
 * of there delivers exactly once, and the owner waits for that delivery before it ends its call. So
 * nobody else knows the record between two calls.
 *
 *     inactive --setTransactionAndTerminationId--> active --free--> inactive
 */
class OngoingRequest final : private Transport::AnswerWait::Awaited {
public:
    /** In place of a response: the target has gone, or the broker is being deleted. A pointer with
     * every bit set. */
    static TreflectMessage* disconnected();

    OngoingRequest() = default;
    ~OngoingRequest();
    OngoingRequest(OngoingRequest const&) = delete;
    OngoingRequest& operator=(OngoingRequest const&) = delete;

    /** The calling thread's record. */
    static OngoingRequest& getThreadInstance();

    /** Type and payload of `request`, if given, stay as they are until the request has been taken
     * out of its table; the rest of its head may change. */
    void setTransactionAndTerminationId(unsigned int id, Transport::TerminationId const& target,
                                        TreflectMessage const* request = nullptr);
    /** A wait for a response, which the broker may give up. */
    struct Wait {
        TreflectMessage& request;
        TreflectORB const& orb;
        bool output;                               // a dump of the request in each report
        Transport::AnswerWait* answers = nullptr;  // the request was issued with it, or null
        /** The thread has given up the run permission for this wait and takes it again after it. */
        bool thenPermission = false;
        /** When the owner gives up, by Clock::nowNanoseconds. */
        long long deadline = TreflectDeadline::kNever;
        bool targetExists = true;  // set, as the next
        bool timedOut = false;
    };
    /**
     * Waits for the delivery; its result stays the record's. Null at once for an inactive record.
     * The wait goes in periods of 30 seconds. After each of them it ends with null and
     * `targetExists` false when the target has gone; else it is reported, and after the second one
     * the broker gives up, which does not return, or the wait ends with null and `timedOut` where
     * Transport::Setup::failOnSilence says so. At the deadline it ends likewise. A cancellation
     * point. Owner's thread only.
     *
     * With `answers` the thread takes in by itself what comes from the target, when it may, as the
     * receiving thread would do.
     *
     * With `thenPermission` the thread may have the permission already when this answers with a
     * delivery: who delivers to a sleeping thread queues it for the permission, so that the thread
     * is woken once for both.
     */
    TreflectMessage* wait(Wait& wait);
    /** The same, or with `waitForever` until something has been delivered. */
    TreflectMessage* wait(bool waitForever, bool output, bool& targetExists,
                          TreflectMessage& request, TreflectORB const* orb);
    /** Whether something has been delivered. Owner's thread. */
    bool delivered() const { return response_.load(std::memory_order_acquire) != nullptr; }

    /** How often something has been delivered. Any thread. */
    unsigned int deliveries() const { return deliveries_.load(std::memory_order_acquire); }

    /** Delivers it if the record still waits for that transaction, else deletes it. */
    void reset(TreflectMessage* response, unsigned int transactionId);
    /** The same if the record's request went to `target`. */
    void reset(TreflectMessage* response, Transport::TerminationId const& target);
    /** Ends the request: deletes the response and makes the record inactive. */
    void free();
    Transport::TerminationId toTerminationId();

    /** What the owner waits for, for diagnostics. A value. */
    struct Glimpse {
        long thread = 0;  ///< the owner, by the kernel's number
        Transport::TerminationId target;
        unsigned int type = 0;  ///< of the request; what follows is of a call, else 0
        unsigned int object = 0;
        unsigned int classCode = 0;
        int methodCode = 0;
        /** When the owner has gone to sleep, as Clock::nowNanoseconds; 0: it has not. */
        long long asleepSince = 0;
    };
    /** Of a record that is in a table, with the mutex of that held. */
    Glimpse glimpse();

private:
    class Withdrawal;
    class SleepAtRing;
    struct DeleteResponse {
        void operator()(TreflectMessage* response) const;
    };
    /** A message, nothing, or disconnected(). Made before the lock is taken, and so deleted after
     * unlocking: messages go back to pools that have locks. */
    using Response = std::unique_ptr<TreflectMessage, DeleteResponse>;

    struct FreeRecords;

    static void initonce();
    static OngoingRequest* takeFree();
    static OngoingRequest& keyedInstance();
    static OngoingRequest& unkeyedInstance();
    static void destroyThreadInstance(void* record);

    bool hasCome() const override { return delivered(); }
    void fallAsleep(long long now);
    TreflectMessage* waitOnePeriod(OSWrap::TimeSpec period, Wait& wait);
    TreflectMessage* readUntil(long long end, Wait& wait);
    void sleepAtRing(Transport::AnswerWait::Reading& reading, Transport::AnswerWait const& answers,
                     long long end);
    static void takeLeave(Transport::AnswerWait::Reading& reading, bool thenPermission);
    TreflectMessage* sleepUntilDelivered();
    TreflectMessage* sleepInPeriods(Wait& wait);
    TreflectMessage* sleepOnePeriod(OSWrap::TimeSpec const& period);
    TreflectMessage* sleepOnePeriodForPermission(OSWrap::TimeSpec const& period);
    TreflectMessage* timeOut(Wait& wait) const;
    bool leaveToDeliverer(handlerthreads::PermissionWaiter& waiter);
    bool takeBack();
    void wakeOwner(handlerthreads::PermissionWaiter* waiter);
    TreflectMessage* exchange(TreflectMessage* response) OSW_REQUIRES(condition_);
    bool waitsFor(unsigned int transactionId) const OSW_REQUIRES(condition_) {
        return transactionId_ == transactionId;
    }
    bool waitsFor(Transport::TerminationId const& target) const OSW_REQUIRES(condition_) {
        return target_ == target;
    }
    template <class Key>
    void deliverTo(Key const& key, TreflectMessage* response);
    void store(Response& response) OSW_REQUIRES(condition_);

    static pthread_key_t tsv_key_;  // written by initonce, as is the next
    static bool keyed_;

    /// Taken after a broker's request mutex; nothing is locked, and nothing logged, under it.
    OSWrap::ConditionVar condition_{true};
    unsigned int transactionId_ OSW_GUARDED_BY(condition_) = 0;
    Transport::TerminationId target_ OSW_GUARDED_BY(condition_);
    TreflectMessage const* request_ OSW_GUARDED_BY(condition_) = nullptr;  // not owned
    std::atomic<long> owner_{0};             // kernel's number; written by the owner
    std::atomic<long long> asleepSince_{0};  // likewise
    /// Null: nothing yet; disconnected(); else an owned message. Written under condition_, polled
    /// by the owner without it.
    std::atomic<TreflectMessage*> response_{nullptr};
    std::atomic<unsigned int> deliveries_{0};  // written under condition_
    /// The owner's entry for the queue of the run permission while it sleeps: whoever delivers
    /// takes it out of here and queues it.
    handlerthreads::PermissionWaiter* waiter_ OSW_GUARDED_BY(condition_) = nullptr;
    /// What wakes the owner while it sleeps in a reading of its own, rung under condition_.
    Transport::AnswerWait const* asleepAt_ OSW_GUARDED_BY(condition_) = nullptr;
    bool active_ = false;                 // owner's thread only
    OngoingRequest* nextFree_ = nullptr;  // guarded by the mutex of the list of free records
    OSWrap::AdaptiveWait waiting_;        // statistics of this thread's waits
};
