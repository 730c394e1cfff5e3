#pragma once

#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "handler_threads/RunPermission.h"
#include "reflect/TreflectObserverClient.h"
#include "transport/TerminationId.h"

/** A registration of an observer of calls: its kind, the class and the method code of the
 * operation. A value. */
struct TreflectObservation {
    unsigned int kind;                       ///< TreflectObservable::kBeforeCalls or kAfterCalls
    unsigned int classId;                    ///< of the class that declares the operation
    unsigned int methodCode;                 ///< of the operation
    TreflectObserverClient const* observer;  ///< of use until a registration begins or ends
};

/**
 * The observers of an object, by operation: part of every server object. Used under the run
 * permission; an observer in another process is waited for, with the permission given up.
 *
 * An observer that has gone is forgotten and forbids nothing, unless it is registered as a guard.
 *
 * An operation is identified by the id of the class that declares it and its method code.
 *
 * Virtual operations in slot order: destructor, registerObserver, unRegisterObserver,
 * notifyObservers.
 */
class REFLECTORB_API TreflectObservable {
public:
    /** Whether an observable that may have been destroyed during a wait is still there. Ends when
     * the destruction begins, which may wait itself. */
    class Life {
    public:
        /** Made while the observable is there; may outlive it. */
        explicit Life(TreflectObservable const& observable) : living_(observable.living_) {}
        /** Whether its destruction has begun. Under the run permission. */
        bool ended() const { return !*living_; }

    private:
        std::shared_ptr<bool const> const living_;  // guarded by the run permission
    };

    /** The kinds of registrations; any kind but the first is of the second. */
    static constexpr unsigned int kBeforeCalls = 0;
    static constexpr unsigned int kAfterCalls = 1;

    TreflectObservable();
    virtual ~TreflectObservable();
    TreflectObservable(TreflectObservable const&) = delete;
    TreflectObservable& operator=(TreflectObservable const&) = delete;

    /** One more registration of an observer, which is told as often as it is registered. */
    virtual void registerObserver(unsigned int kind, unsigned int const& cc, unsigned int const& mc,
                                  TreflectObserverClient const& client);
    /** Ends the observer's first registration before calls and its first after calls, in the order
     * of classes and operations. */
    virtual void unRegisterObserver(TreflectObserverClient const& client);
    /**
     * Tells the observers of one kind of a call on `source`, in the order of their registration;
     * all of them, whatever they answer. False when one that was reached answered false, or when
     * this object was destroyed meanwhile. One that was not reached, or whose `update` threw, has
     * no say and has a registration ended, by unRegisterObserver, which spares its guards then.
     * Observers may be registered and removed meanwhile, which changes nothing for this call.
     */
    virtual bool notifyObservers(TreflectObject const& source, unsigned int kind,
                                 unsigned int const& cc, unsigned int const& mc,
                                 TipprmiSequence<TipprmiAny, 0u> const& arguments);

    /**
     * A registration before calls that fails closed: while the observer cannot be reached, or its
     * `update` throws, the operation is forbidden, and its registration stays. One of the same
     * observer, or of an earlier one of the same identifier, for the same operation is replaced.
     */
    void registerGuard(unsigned int cc, unsigned int mc, TreflectObserverClient const& client);
    /** Ends the registrations of an operation's guards that could not be reached when they were
     * last told of a call, or whose process has gone; how many. */
    unsigned int removeLostGuards(unsigned int cc, unsigned int mc);

    /** Whether anybody would be told of a call, before it or after it. */
    bool preObserverAvailable(unsigned int const& cc, unsigned int const& mc) const {
        handlerthreads::trustPermission();
        return available(preObservers_, cc, mc);
    }
    bool postObserverAvailable(unsigned int const& cc, unsigned int const& mc) const {
        handlerthreads::trustPermission();
        return available(postObservers_, cc, mc);
    }

    /** All registrations, for diagnostics. Under the run permission. */
    std::vector<TreflectObservation> observations_() const;

protected:
    /** Says that the object is being destroyed. */
    void endLife();
    /** Whether an observer is a guard of the operation. */
    bool hasGuard(unsigned int cc, unsigned int mc, TreflectObserverClient const& client) const;
    /** Whom registrations of the calling thread come from, for a scope; without one, this process.
     */
    class OnBehalf {
    public:
        /** `sender`: the broker of the process that asks for them. */
        explicit OnBehalf(Transport::TerminationId sender);
        ~OnBehalf();
        OnBehalf(OnBehalf const&) = delete;
        OnBehalf& operator=(OnBehalf const&) = delete;

    private:
        Transport::TerminationId const outer_;
    };
    /** Whether another process, that of OnBehalf, may register an observer: of one process no more
     * than 1024 registrations are kept, and of what others than its own process register no more
     * than 1024 for one broker, as the observer's handle names it. Forgets those of brokers that
     * are not there whenever the number of all has doubled, but not guards. */
    bool makeRoomFor(TreflectObserverClient const& client);
    /** Whether anybody would be told after a call of any operation. */
    bool isObservedAfterCalls() const {
        handlerthreads::trustPermission();
        return postObservers_ && !postObservers_->empty();
    }

private:
    using Key = std::pair<unsigned int, unsigned int>;  // class id, method code
    struct Registration {
        TreflectObserverClient client;
        bool guards = false;
        bool lost = false;                // a guard that was not reached the last time
        Transport::TerminationId sender;  // who registered it; 0: this process
    };
    using Observers = std::multimap<Key, Registration>;
    class Told;

    static bool available(std::unique_ptr<Observers> const& observers, unsigned int cc,
                          unsigned int mc) {
        return observers && observers->find({cc, mc}) != observers->end();
    }
    /** False when the observer was not reached; `answer` is then of no account. */
    static bool tell(TreflectObserverClient const& client, TreflectObject const& source,
                     unsigned int cc, unsigned int mc,
                     TipprmiSequence<TipprmiAny, 0u> const& arguments, bool& answer);
    /** Tells one guard of a call: whether it agrees. */
    bool askGuard(TreflectObserverClient const& client, TreflectObject const& source,
                  Key const& key, TipprmiSequence<TipprmiAny, 0u> const& arguments);
    void noteGuard(TreflectObserverClient const& client, Key const& key, bool lost);
    std::size_t count() const;
    bool hasTooMany(TreflectOrbId const& broker) const;
    void forgetThoseGone();
    void removeFirst(Observers* observers, TreflectObserverClient const& client);

    // Made with the first registration.
    std::unique_ptr<Observers> preObservers_ OSW_GUARDED_BY_PERMISSION;
    std::unique_ptr<Observers> postObservers_ OSW_GUARDED_BY_PERMISSION;
    // So many, before those of processes that have gone are forgotten.
    std::size_t manyObservers_ OSW_GUARDED_BY_PERMISSION = 0;
    std::shared_ptr<bool> const living_ = std::make_shared<bool>(true);  // false when it ends
};
