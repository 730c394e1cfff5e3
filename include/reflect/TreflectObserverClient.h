#pragma once

#include "ipprmi/TipprmiAny.h"
#include "reflect/TreflectObject.h"

/**
 * A handle on an observer anywhere, through which an observed object tells it of a call. Equal to
 * another when their stubs are equal.
 */
class REFLECTORB_API TreflectObserverClient : public TreflectObject {
public:
    TreflectObserverClient() = default;
    /** A handle on an observer anywhere. */
    explicit TreflectObserverClient(TipprmiOID const& oid) : TreflectObject(oid) {}
    /** On one of this process, which is not owned. */
    explicit TreflectObserverClient(TipprmiObjectSkeleton const* skeleton)
        : TreflectObject(skeleton) {}
    /** On the object of another handle, which is taken to be an observer. */
    explicit TreflectObserverClient(TreflectObject const& other) : TreflectObject(other) {}
    TreflectObserverClient(TreflectObserverClient const& other) = default;
    TreflectObserverClient& operator=(TreflectObserverClient const& other) = default;
    ~TreflectObserverClient() override;

    /**
     * Tells the observer of a call of operation `mc`, declared by class `cc`, on the object
     * `source`, and answers what the observer answers: before a call, false forbids it. `alive`
     * becomes true when the observer was reached. Waits for an observer in another process, with
     * the run permission given up.
     */
    virtual bool notify(TreflectObject const& source, unsigned int const& cc,
                        unsigned int const& mc, TipprmiSequence<TipprmiAny, 0u> const& arguments,
                        bool& alive) const;
};
