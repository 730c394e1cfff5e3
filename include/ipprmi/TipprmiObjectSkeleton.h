#pragma once

#include <memory>

#include "ipprmi/TipprmiObjectBase.h"

class TipprmiObjectClient;
class TreflectORB;

/**
 * Server side of an object: registered with the broker of its identifier's namespace from
 * construction to destruction. Derived classes override `dispatch`, serve their own method codes
 * and pass the rest on. Build and destroy skeletons holding the run permission; `dispatch` is
 * called with it.
 */
class REFLECTORB_API TipprmiObjectSkeleton : public TipprmiObjectBase {
public:
    explicit TipprmiObjectSkeleton(TipprmiOID const& oid);
    /** As above: `orb` is of no account, the object joins the broker of its identifier's namespace.
     */
    TipprmiObjectSkeleton(TreflectORB* orb, TipprmiOID const& oid);
    TipprmiObjectSkeleton(TipprmiObjectSkeleton const&) = delete;
    TipprmiObjectSkeleton& operator=(TipprmiObjectSkeleton const&) = delete;
    ~TipprmiObjectSkeleton() override;

    /** Any thread. */
    TreflectOrbId orbId() const override;
    /** Serves 2100 (set the exception container) and 2101 (get it). */
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
    void setExceptionContainer(TipprmiExceptionContainer const& container) override;
    TipprmiExceptionContainer getExceptionContainer() const override;
    /** Joins `orb`, or the broker of the identifier's namespace when null, leaving the present one.
     */
    virtual void connect(TreflectORB* orb, TipprmiOID const& oid);
    /** The object's own client handle, made when first asked for; owned by the skeleton. Any
     * thread. */
    virtual TipprmiObjectClient* getClient() const;

    TreflectORB* getORB() const { return orb_; }
    void setORB(TreflectORB* orb) { orb_ = orb; }

protected:
    /** Starts a response with the skeleton's exception container; every response begins so. */
    void prepareResponseStream_(TipprmiStream& out) const;

    mutable std::unique_ptr<TipprmiObjectClient> client_;  // guarded by the run permission

private:
    TreflectORB* orb_ = nullptr;  // guarded by the run permission; null when its broker has gone
    TipprmiExceptionContainer exceptionContainer_;
};
