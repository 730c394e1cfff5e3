#pragma once

#include <utility>

#include "reflect/TreflectObserverSkeleton.h"

/**
 * Watches calls on other objects (TreflectOperation::preObserve, postObserve) and the creation and
 * deletion of objects of a class (TreflectMetaObject::observeCreations): derive from it and say in
 * `update` what to do. It may live in another process than what it watches.
 *
 * Build and destroy observers holding the run permission. An observer that is destroyed, or whose
 * process ends, is forgotten by those that it watches when they next want to tell it something.
 *
 * Virtual operations after those of the skeleton, in slot order: update, getSource, setSource.
 */
class REFLECTORB_API TreflectObserver : public TreflectObserverSkeleton {
public:
    /** Without identifier, parent and name of its own: enough for one that is only to be told. */
    TreflectObserver();
    /** A server object as any other, see TreflectServerObject: brokers reach it under its
     * identifier. */
    TreflectObserver(TipprmiOID const& oid, TreflectObject const* parent, std::string const& name);
    ~TreflectObserver() override;

    bool notify(TreflectObject const& source, unsigned int const& cc, unsigned int const& mc,
                TipprmiSequence<TipprmiAny, 0u> const& arguments, bool& alive) override;
    /**
     * The reaction to a notification. Before a call, false forbids it; otherwise the answer is of
     * no account. May register and remove observers, make calls, and destroy this observer. Called
     * with the run permission; while it gives that up, the next notification may come in and
     * replace what the observer was told.
     */
    virtual bool update() = 0;
    /** The object that the notification is about: for `update` only, the handle ends with it. */
    virtual TreflectObject const* getSource() const;
    /** For who notifies: which object it is about. Not owned. */
    virtual void setSource(TreflectObject const* source);

    /** What the call was given (before it) or gave (after it); for an observer of an attribute's
     * set operation also the value that the object tells to have changed, if it could be asked for.
     */
    TipprmiSequence<TipprmiAny, 0u> const& arguments() const { return arguments_; }
    /** The argument, or result, at `index` as a T: true. False, and `value` as it was, when there
     * is none or it cannot be read as one. */
    template <class T>
    bool argument(unsigned int index, T& value) const {
        if (index >= arguments_.getLength())
            return false;
        TipprmiAny encoded = arguments_[index];
        T found = tipprmiBlank<T>();
        encoded.extract(found);
        if (encoded.hasUnmarshallingFailed())
            return false;
        value = std::move(found);
        return true;
    }
    /** Whether there has been a notification of a call at all. */
    bool notified() const { return notified_; }

private:
    // All guarded by the run permission.
    TipprmiSequence<TipprmiAny, 0u> arguments_;
    bool notified_ = false;
    TreflectObject const* source_ = nullptr;
};
