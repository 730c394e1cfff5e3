#pragma once

#include <string>

#include "ipprmi/TipprmiResult.h"
#include "ipprmi/TipprmiSequence.h"
#include "oswrap/Export.h"
#include "reflect/TreflectMetaOperation.h"

class TreflectObject;
class TreflectObserver;

/** An operation of one object, found by name: a meta operation bound to a handle. Handles hand it
 * out and own it. Used under the run permission. */
class REFLECTORB_API TreflectOperation {
public:
    /** Binds a meta operation to a handle; neither is owned, and both must outlive it. Made by
     * meta operations (TreflectMemberFactory); others ask a handle for its operation. */
    TreflectOperation(TreflectMetaOperation const* meta, TreflectObject const* object);
    virtual ~TreflectOperation();
    TreflectOperation(TreflectOperation const&) = delete;
    TreflectOperation& operator=(TreflectOperation const&) = delete;

    /** What every call of the null operation answers. */
    static int error;

    /** Null for the null operation. */
    TreflectMetaOperation const* meta() const { return meta_; }
    /** Whether it is the null operation. */
    bool isError() const { return error_; }

    /** Calls the operation without arguments, whatever the class's table tells, waits until it has
     * run, and leaves its results unread; 0, whatever came back. */
    int call();
    /**
     * Calls the operation with arguments and waits for its results: 0, or `error` for the null
     * operation and a call that has failed, which leaves `out` as it was. Each any of `in` holds
     * the encoding of one argument, as TipprmiAny::insert or TreflectParameterType::parse make it.
     * Observers are told as of every call.
     *
     * Where the class's table tells types, the number of arguments and each of them are checked
     * before anything is sent: TipprmiFailure::kMismatch, and a line at level 3.
     *
     * `out` has the results one by one when the operation describes them (see
     * TreflectMetaOperation::registerParameter); a result of a type that TreflectParameterType does
     * not know is the last one, with all bytes that are left. Without descriptions it is one any of
     * all bytes, or none when there are none.
     */
    int call(TipprmiSequence<TipprmiAny, 0u> const& in, TipprmiSequence<TipprmiAny, 0u>& out);
    /** The same, with the code of the failure; TipprmiFailure::kUnreadable when what came back is
     * not what the operation describes. */
    TipprmiResult<TipprmiSequence<TipprmiAny, 0u>> invoke(
        TipprmiSequence<TipprmiAny, 0u> const& in);
    /** When the last call with arguments failed with TipprmiFailure::kMismatch: what the class
     * tells of them, and what was given instead, in words; else empty. */
    std::string const& mistake() const { return mistake_; }
    /** Has an observer told before each call, which it can veto; false for the null operation. */
    bool preObserve(TreflectObserver* observer);
    /**
     * The same for a guard: while the observer cannot be reached, since it has been destroyed or
     * its process has gone, or while its `update` throws, every call of the operation is forbidden.
     * That ends when the observer's registration is removed (removeObserver), when a guard of the
     * same identifier is registered in its place, or by removeLostGuards. False when it is not
     * registered: for the null operation, and when the object cannot be reached or does not know
     * guards.
     */
    bool guard(TreflectObserver* observer);
    /** Ends the registrations of guards of the operation that have gone, whoever registered them;
     * how many there were. */
    unsigned int removeLostGuards();
    /** Has an observer told after each call; false for the null operation. */
    bool postObserve(TreflectObserver* observer);
    /** Ends one registration of each kind that the observer has with the object, see
     * TreflectObject::removeObserver. */
    void removeObserver(TreflectObserver* observer);

protected:
    /** For the null operation. */
    void markAsError() { error_ = true; }

private:
    /** Tells it, if so. */
    bool isMistaken(TreflectMetaOperation::Signature const& signature,
                    TipprmiSequence<TipprmiAny, 0u> const& in);

    TreflectMetaOperation const* const meta_;
    TreflectObject const* const object_;
    bool error_ = false;   // set by the null operation's constructor only
    std::string mistake_;  // guarded by the run permission
};

/** The null operation: every call of it answers `error`, or false, and reaches nobody. */
class REFLECTORB_API TreflectErrorOperation : public TreflectOperation {
public:
    /** There is one for the process, TreflectAttribute::errorOperation, with neither meta
     * operation nor handle. */
    TreflectErrorOperation(TreflectMetaOperation const* meta, TreflectObject const* object);
    ~TreflectErrorOperation() override;
};
