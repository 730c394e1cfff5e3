#pragma once

#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "ipprmi/TipprmiObjectSkeleton.h"
#include "reflect/TreflectObject.h"
#include "reflect/TreflectObservable.h"
#include "reflect/TreflectParameters.h"

class TreflectMetaAttribute;

/**
 * Server side of a reflective object: a skeleton that has a name and a place in a tree of names,
 * which may reach over processes, tells its classes, and lets its calls be observed. The interface
 * compiler writes the skeletons that server objects derive from; in C++ alone TreflectInterface
 * makes one of a line for each operation:
 *
 *     class LampSkeleton : public TreflectInterface<LampSkeleton> {
 *     public:
 *         using TreflectInterface::TreflectInterface;
 *
 *         virtual unsigned int getLevel() = 0;
 *         virtual void setLevel(unsigned int level) = 0;
 *         virtual bool blink(unsigned int times) = 0;
 *
 *         static constexpr auto interface() {
 *             return describe(
 *                 "Lamp", 0x4C414D50,
 *                 attribute<&LampSkeleton::getLevel, &LampSkeleton::setLevel>("Level", 1, 2),
 *                 op<&LampSkeleton::blink>("blink", 6));
 *         }
 *     };
 *
 * A class that neither can describe, such as one that is known only at run time, overrides
 * `dispatch`, serves its own method codes (see `serve`) and passes the rest on; it overrides
 * getServerClassId and getServerClassIdSeq, unless it derives from TreflectSkeleton.
 *
 * Build and destroy server objects holding the run permission; everything here runs under it.
 * A derived class calls `sendCreationEvent` when it is built and `sendDeletionEvent` first thing in
 * its destructor, if anybody is to hear of its objects.
 *
 * Virtual operations after those of the skeleton: getClient (its override), getParent, getChild,
 * getChilds, registerChild, unregisterChild, getServerClassId, getServerClassIdSeq, getAbsName,
 * getRelName, sendCreationEvent, sendDeletionEvent, notifyObservers.
 */
class REFLECTORB_API TreflectServerObject : public TipprmiObjectSkeleton,
                                            public TreflectObservable {
public:
    /** Joins the broker of `oid`'s namespace and, when there is a parent, enters the object among
     * its children. The parent is waited for if it lives in another process. A name with "/" in it
     * is reported at level 3: no absolute name leads to the object. */
    TreflectServerObject(TipprmiOID const& oid, TreflectObject const* parent,
                         std::string const& name);
    /** Leaves broker and parent. */
    ~TreflectServerObject() override;

    /** Serves what every reflective object answers, by method code alone, see
     * docs/wire-format.md; leaves any other to the skeleton. */
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;

    /** The object's own handle, made when first asked for; owned by the object. */
    TreflectObject* getClient() const override;
    /** Unconnected when there is none. */
    virtual TreflectObject getParent() const;
    /** Unconnected when there is none of this name. One that was registered by its identifier
     * before it was there is looked for. */
    virtual TreflectObject getChild(std::string const& name) const;
    /** In the order of their names. */
    virtual TipprmiSequence<TreflectObject, 0u> getChilds() const;
    /** Enters a child, in place of one that has this name. */
    virtual void registerChild(std::string const& name, TreflectObject const& child);
    /** Takes a child out, if it is there. */
    virtual void unregisterChild(std::string const& name);
    /** The id of the object's own class. */
    virtual unsigned int getServerClassId() const = 0;
    /** The ids of its own class and of its bases, the most special first. */
    virtual TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const = 0;
    /** "/" and the names of all parents and of the object, with "/" between them. Asks the parent,
     * wherever it is. An object that is its own ancestor in this process is logged at level 3. */
    virtual std::string getAbsName() const;
    /** The object's own name. */
    virtual std::string getRelName() const;
    /** Tells the observers of the class in all processes that the object is there (or is about to
     * go); `metaObject` is its class, by default the one that its handle names. Waits for those in
     * other processes. */
    virtual void sendCreationEvent(TreflectMetaObject const* metaObject = nullptr) const;
    virtual void sendDeletionEvent(TreflectMetaObject const* metaObject = nullptr) const;
    /** sendCreationEvent for the object's class and each of its bases, in the order of
     * getServerClassIdSeq, so that who observes a base hears of it, too. Gives the permission up
     * for each; ends when the object has gone meanwhile. */
    void sendCreationEvents() const;
    /** The same for its end: first thing in the most derived destructor. */
    void sendDeletionEvents() const;
    /** Tells the observers of one kind of a call on this object. */
    virtual bool notifyObservers(unsigned int kind, unsigned int const& cc, unsigned int const& mc,
                                 TipprmiSequence<TipprmiAny, 0u> const& arguments);
    using TreflectObservable::notifyObservers;
    /**
     * Tells that the value of one of the object's attributes has changed, with the new value: to
     * each TreflectWatch of it, and to who observes its set operation after calls (a call of that,
     * as he sees it, which gave the value). Which value, the attribute's get operation is asked,
     * without its observers: the object must be in a state to answer. If it refuses, observers are
     * told without a value, and watches ask for it; what it throws passes to the caller. What is no
     * attribute of the class is logged at level 3 when the object is observed.
     *
     * Any thread. Waits for the observers, one after the other; for those in other processes with
     * the permission given up, so that anything may have changed afterwards, and the object may
     * have been destroyed (see Life). Changes of the attribute that come meanwhile are told then,
     * and who makes them does not wait for that: the last notice has the last value, but not each
     * change is told. The call that is telling goes on with what observers on its own thread have
     * changed, and once with what others have; after that it leaves them to the thread
     * `ReflectWatch`, on which what the get operation throws is dropped.
     *
     * Within the attribute's set operation, while `serve` serves it to observers, nothing is told
     * at once: they hear of the set when it is done, or of the change when it has thrown.
     *
     * One look when nobody observes the object.
     */
    void changed(std::string const& attribute);

    /** Marks, for a scope, that the calling thread runs the function of a call of which observers
     * hear afterwards. When it throws, or its thread is cancelled, they do not, and are told at
     * once of a change that it has told. For the library's own use. */
    class REFLECTORB_API ObservedCall {
    public:
        /** Begins the mark, for a call of the operation of that class and method code. The object
         * may be destroyed meanwhile. Under the run permission. */
        ObservedCall(TreflectServerObject& object, unsigned int classId, unsigned int methodCode);
        ~ObservedCall();
        ObservedCall(ObservedCall const&) = delete;
        ObservedCall& operator=(ObservedCall const&) = delete;

        /** Runs the function: what it returns. */
        template <class Function>
        auto run(Function const& function);
        /** Leaves a change to the call of the attribute's set operation that the calling thread is
         * in; false when it is in none. */
        static bool tellsOf(TreflectServerObject const& object,
                            TreflectMetaAttribute const& changed, unsigned int classId,
                            unsigned int methodCode);

    private:
        void tellUnobserved() const;

        static thread_local ObservedCall* innermost_;

        TreflectServerObject& object_;  // while life_ lasts
        Life const life_;
        unsigned int const classId_;
        unsigned int const methodCode_;
        bool hasReturned_ = false;
        ObservedCall* const outer_;
        TreflectMetaAttribute const* changed_ = nullptr;  // what it has told to have changed
    };

    /** The class ids that the object answers; none while it is being built or destroyed. */
    TipprmiSequence<unsigned int, 0u> getClassIds() const;
    /** The object's own name, which the object keeps. */
    char const* objectName() const { return longName_ ? longName_.get() : shortName_; }

    /** Whether this is an observer, a TreflectObserverSkeleton. */
    bool isObserver() const { return observes_; }

protected:
    /** Says whether this is an observer; for TreflectObserverSkeleton only. */
    void setObserver(bool observes) { observes_ = observes; }
    /**
     * Serves a call by a member function, as TipprmiObjectSkeleton::serve does, and lets the call
     * be observed. `declaring` is the class that has the operation in its tables; a call whose
     * class code is neither that nor another class of this object is not served, nor one by the
     * class code of a base whose table has another operation under `mc`. Before the function is
     * called its observers are told the arguments, and if one forbids the call it is
     * refused with TipprmiFailure::kVetoed; afterwards they are told the result, if there is one.
     *
     * The function may destroy the object as its last act: the caller gets the result all the same,
     * and no observer is told of it.
     */
    template <class Server, class Result, class... Parameters>
    bool serve(unsigned int declaring, unsigned int cc, unsigned int mc, TipprmiStream& in,
               TipprmiStream& out, Result (Server::*method)(Parameters...));
    template <class Server, class Result, class... Parameters>
    bool serve(unsigned int declaring, unsigned int cc, unsigned int mc, TipprmiStream& in,
               TipprmiStream& out, Result (Server::*method)(Parameters...) const);

private:
    friend class ClassRecords;

    static constexpr std::size_t kShortNameSize = 16;  // with its NUL

    struct StandardMethod;
    class ChangeUnderWay;

    bool serveStandard(unsigned int mc, TipprmiStream& in, TipprmiStream& out);
    void serveObserverRegistration(TipprmiStream& in, TipprmiStream& out);
    void serveObserverRemoval(TipprmiStream& in, TipprmiStream& out);
    void serveGuardRegistration(TipprmiStream& in, TipprmiStream& out);
    void serveRemovalOfLostGuards(TipprmiStream& in, TipprmiStream& out);
    void serveChild(TipprmiStream& in, TipprmiStream& out);
    void serveChildRegistration(TipprmiStream& in, TipprmiStream& out);
    void serveChildRemoval(TipprmiStream& in, TipprmiStream& out);
    void keepName(std::string const& name);
    /** Whether a call with class code `cc` may mean the operation `mc` that `declaring` declares:
     * `cc` is that class, or one of this object, but no base whose `mc` is another operation. */
    bool concerns(unsigned int cc, unsigned int declaring, unsigned int mc) const;
    /** Has the broker tell of this object. */
    void announce(TreflectMetaObject const* metaObject,
                  bool (TreflectORB::*notify)(unsigned int, TreflectServerObject const&)) const;
    void announceAsEach(void (TreflectServerObject::*event)(TreflectMetaObject const*) const) const;
    bool refuseForeignCall(unsigned int mc, TipprmiStream& in, TipprmiStream& out);
    void tellChange(TreflectMetaAttribute const& attribute);
    /** Whether the calling thread asks for a value to tell others, by this operation. */
    bool isReadForNotice(unsigned int mc) const;
    bool isObserved(unsigned int declaring, unsigned int mc) const {
        return (preObserverAvailable(declaring, mc) || postObserverAvailable(declaring, mc)) &&
               !isReadForNotice(mc);
    }
    template <class Result, class... Parameters, class Method>
    bool serveWithObservers(unsigned int declaring, unsigned int cc, unsigned int mc,
                            TipprmiStream& in, TipprmiStream& out, Method const& method);
    template <class Result, class... Parameters, class Method>
    bool serveObserved(unsigned int declaring, unsigned int mc, TipprmiStream& in,
                       TipprmiStream& out, Method const& method);

    // All guarded by the run permission; the names never change.
    char shortName_[kShortNameSize] = {};
    std::unique_ptr<char[]> longName_;  // only for a name that does not fit above
    TreflectObject parent_;
    mutable std::unique_ptr<std::map<std::string, TreflectObject>> children_;  // made when needed
    // In how many classes a broker has it among the objects that have been announced.
    mutable unsigned int announcements_ = 0;
    ChangeUnderWay* changes_ = nullptr;  // those that are being told
    bool observes_ = false;
};

template <class Function>
auto TreflectServerObject::ObservedCall::run(Function const& function) {
    if constexpr (std::is_void_v<decltype(function())>) {
        function();
        hasReturned_ = true;
    } else {
        auto result = function();
        hasReturned_ = true;
        return result;
    }
}

template <class Server, class Result, class... Parameters>
bool TreflectServerObject::serve(unsigned int declaring, unsigned int cc, unsigned int mc,
                                 TipprmiStream& in, TipprmiStream& out,
                                 Result (Server::*method)(Parameters...)) {
    return serveWithObservers<Result, Parameters...>(
        declaring, cc, mc, in, out, [&](auto&&... arguments) -> Result {
            return (static_cast<Server*>(this)->*method)(
                std::forward<decltype(arguments)>(arguments)...);
        });
}

template <class Server, class Result, class... Parameters>
bool TreflectServerObject::serve(unsigned int declaring, unsigned int cc, unsigned int mc,
                                 TipprmiStream& in, TipprmiStream& out,
                                 Result (Server::*method)(Parameters...) const) {
    return serveWithObservers<Result, Parameters...>(
        declaring, cc, mc, in, out, [&](auto&&... arguments) -> Result {
            return (static_cast<Server const*>(this)->*method)(
                std::forward<decltype(arguments)>(arguments)...);
        });
}

template <class Result, class... Parameters, class Method>
bool TreflectServerObject::serveWithObservers(unsigned int declaring, unsigned int cc,
                                              unsigned int mc, TipprmiStream& in,
                                              TipprmiStream& out, Method const& method) {
    if (!concerns(cc, declaring, mc))
        return refuseForeignCall(mc, in, out);
    if (isObserved(declaring, mc))
        return serveObserved<Result, Parameters...>(declaring, mc, in, out, method);
    Life const life(*this);
    return serveBy<Result, Parameters...>(cc, mc, in, out, method,
                                          [&life] { return life.ended(); });
}

template <class Result, class... Parameters, class Method>
bool TreflectServerObject::serveObserved(unsigned int declaring, unsigned int mc, TipprmiStream& in,
                                         TipprmiStream& out, Method const& method) {
    auto arguments = tipprmiBlanks<std::decay_t<Parameters>...>();
    if (!readArguments(declaring, mc, in, arguments))
        return false;
    Life const life(*this);
    TreflectParameters values;
    std::apply([&](auto const&... argument) { values.set(argument...); }, arguments);
    bool const allowed = notifyObservers(kBeforeCalls, declaring, mc, values.sequence());
    if (life.ended())
        return false;
    if (!allowed) {
        writeGeneralException(out, TipprmiFailure::kVetoed);
        return true;
    }
    auto const perform = [&] {
        return ObservedCall(*this, declaring, mc).run([&] {
            return callWith<Parameters...>(method, arguments);
        });
    };
    if constexpr (std::is_void_v<Result>) {
        perform();
        if (life.ended()) {
            respondWithoutObject(out, TipprmiResult<void>());
            return true;
        }
        prepareResponseStream_(out);
        values.set();
    } else {
        auto const result = perform();
        if (life.ended()) {
            respondWithoutObject(out, result);
            return true;
        }
        respond(out, result);
        values.setResult(result);
    }
    notifyObservers(kAfterCalls, declaring, mc, values.sequence());
    return true;
}
