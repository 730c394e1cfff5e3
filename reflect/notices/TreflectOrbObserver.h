#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "oswrap/ConditionVar.h"
#include "reflect/TreflectOrbObserverIf.h"

/**
 * Tells the application's observers of brokers that come and go, on a thread of its own, so that a
 * slow observer does not hold up the transport. One per broker, shared with its thread, which goes
 * on until it takes a record of the kind kStop.
 */
class TreflectOrbObserver {
public:
    using Appear_t = TreflectOrbObserverIf::Appear_t;
    struct OrbObserver_t {
        TreflectOrbObserverIf* observer;  // not owned
        Appear_t mask;
    };
    struct OrbAppear_t {
        Transport::TerminationId broker;
        Appear_t what;
    };

    TreflectOrbObserver() = default;
    TreflectOrbObserver(TreflectOrbObserver const&) = delete;
    TreflectOrbObserver& operator=(TreflectOrbObserver const&) = delete;

    /** Starts the thread "OrbObsWorker"; when that fails, nobody is ever told. */
    static void startWorker(std::shared_ptr<TreflectOrbObserver> const& self);
    /** Ends the thread, once it has told what is queued before, and waits for that, unless called
     * by the thread itself. Without the run permission. */
    void stopWorker();

    /** False for null. One that is listed already hears of `what` as well. `notifyExisting`: when
     * `what` is kAppear, it is told at once of all terminations there are. */
    bool subscribe(TreflectOrbObserverIf* observer, Appear_t const& what, bool notifyExisting);
    /** When it returns, the observer is not called any more and can be destroyed: a notice that is
     * being told is waited for, with the run permission given up, unless the caller is inside it.
     */
    void unsubscribe(TreflectOrbObserverIf const* observer);
    /** A broker has come up; when it has been caught up with, its arrival is queued, unless its
     * departure has been queued already. */
    void beginArrival(Transport::TerminationId const& broker);
    void endArrival(Transport::TerminationId const& broker);
    /** Queues a notice. */
    void notify(Transport::TerminationId const& broker, Appear_t const& what);
    /** Logs at level 5 who observes what. */
    void display();
    static std::string typeStr(Appear_t const& what);

private:
    class Notice;
    class Worker;

    /** False when there is no thread to be had. */
    bool startAndAwait(Worker& worker);
    /** The body of the thread. */
    void handler();
    /** Waits until a notice is queued. */
    void appeared();
    /** Takes the next notice; false when there is none. */
    bool getAppearance(OrbAppear_t& next);
    void tellAll(OrbAppear_t const& appearance);
    void tell(TreflectOrbObserverIf* observer, OrbAppear_t const& appearance);
    /** Notes that the calling thread tells this observer; false when it is listed no more. */
    bool begin(TreflectOrbObserverIf const* observer);
    void end(TreflectOrbObserverIf const* observer);
    bool isToldElsewhere(TreflectOrbObserverIf const* observer) const OSW_REQUIRES(observersMutex_);
    void notifyExistingOrbs(TreflectOrbObserverIf* observer);
    using Observers = std::vector<OrbObserver_t>;
    Observers::iterator obsFind(TreflectOrbObserverIf const* observer)
        OSW_REQUIRES(observersMutex_);

    /// A leaf lock; signalled when a notice is over.
    OSWrap::ConditionVar observersMutex_;
    Observers observers_ OSW_GUARDED_BY(observersMutex_);  // in the order of registration
    /// Who is being told, and by which thread: the worker, or one that subscribes.
    std::vector<std::pair<TreflectOrbObserverIf const*, unsigned long>> running_
        OSW_GUARDED_BY(observersMutex_);
    unsigned long worker_ OSW_GUARDED_BY(observersMutex_) = 0;  // id of its thread; 0: none

    /// A leaf lock; signalled when a notice is queued.
    OSWrap::ConditionVar appearanceSignal_;
    std::list<OrbAppear_t> appearances_ OSW_GUARDED_BY(appearanceSignal_);
    /// The brokers between the begin and the end of their arrival, and whether they have gone.
    std::map<Transport::TerminationId, bool> arriving_ OSW_GUARDED_BY(appearanceSignal_);
};
