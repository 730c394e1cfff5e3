#pragma once

#include "oswrap/Export.h"

class TreflectMetaOperation;
class TreflectObject;
class TreflectObserver;

/** An operation of one object, found by name: a meta operation bound to a handle. Handles hand it
 * out and own it. Used under the run permission. */
class REFLECTORB_API TreflectOperation {
public:
    TreflectOperation(TreflectMetaOperation const* meta, TreflectObject const* object);
    virtual ~TreflectOperation();
    TreflectOperation(TreflectOperation const&) = delete;
    TreflectOperation& operator=(TreflectOperation const&) = delete;

    /** What every call of the null operation answers. */
    static int error;

    /** Null for the null operation. */
    TreflectMetaOperation const* meta() const { return meta_; }
    bool isError() const { return error_; }

    /** Calls the operation without arguments, waits until it has run, and leaves its results
     * unread; 0, whatever came back. */
    int call();
    /** Has an observer told before each call, which it can veto; false for the null operation. */
    bool preObserve(TreflectObserver* observer);
    /** Has an observer told after each call; false for the null operation. */
    bool postObserve(TreflectObserver* observer);
    /** Ends one registration of each kind that the observer has with the object, see
     * TreflectObject::removeObserver. */
    void removeObserver(TreflectObserver* observer);

protected:
    void markAsError() { error_ = true; }

private:
    TreflectMetaOperation const* const meta_;
    TreflectObject const* const object_;
    bool error_ = false;  // set by the null operation's constructor only
};

/** The null operation: every call of it answers `error`, or false, and reaches nobody. */
class REFLECTORB_API TreflectErrorOperation : public TreflectOperation {
public:
    TreflectErrorOperation(TreflectMetaOperation const* meta, TreflectObject const* object);
    ~TreflectErrorOperation() override;
};
