#pragma once

#include "ipprmi/TipprmiObjectBase.h"
#include "reflect/TreflectObjectLocationIf.h"

class TreflectORB;

/**
 * The one shared, reference-counted standing point through which all handles of a process reach an
 * object, wherever it lives. Made, counted and freed by TreflectObjectHandler only.
 */
class REFLECTORB_API TreflectObjectStub : public TreflectObjectLocationIf,
                                          public TipprmiObjectBase {
public:
    /** Marks a stub whose broker has gone: a pointer with every bit set. */
    static TipprmiObjectSkeleton* const INVALIDOBJECT;

    TreflectObjectStub();
    explicit TreflectObjectStub(TreflectObjectLocationIf const& location);
    explicit TreflectObjectStub(TipprmiObjectSkeleton* skeleton);
    TreflectObjectStub(TreflectObjectStub const& other);
    TreflectObjectStub& operator=(TreflectObjectStub const& other);
    ~TreflectObjectStub() override;

    bool hasOID() const override;
    TipprmiOID getOID() const override;
    TreflectOrbId orbId() const override;
    unsigned int getInternalOID() const override;
    NamespaceId getNamespaceId() const override;
    TipprmiObjectSkeleton* getServer() const override;

    /** Has the broker of NSID_UNIT carry a request; 1 on success. */
    virtual int forwardMsg(TreflectOrbId const& to, bool withResponse, TipprmiStream& request,
                           TipprmiStream& response) const;
    /** Calls the object; 1 on success, else a failure code, and `out` holds an exception container
     * (but for a local object, whose own affair that is). */
    virtual int dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                         TipprmiStream& out) const;
    virtual void connect(TreflectORB const* orb, TipprmiOID const& oid);
    virtual void connect(TipprmiOID const& oid);
    virtual void connect(TipprmiObjectSkeleton* skeleton);
    virtual bool isConnected() const;
    virtual char const* className() const;
    virtual void setExceptionContainer(TipprmiExceptionContainer const& container) const;
    TipprmiExceptionContainer getExceptionContainer() const override;
    /** Routes to the const operation of the same name. */
    void setExceptionContainer(TipprmiExceptionContainer const& container) override;

    bool isValid() const { return server_ != INVALIDOBJECT; }
    void setInvalid() { server_ = INVALIDOBJECT; }

    /** Starts a request: the call header, or nothing for an object of this process. May look for an
     * object that has not been found yet. */
    TipprmiStream& prepareRequestStream(bool withResponse, unsigned int cc, unsigned int mc,
                                        TipprmiStream& stream);
    /** Starts reading a response: its exception container; of type 1, every further read fails. */
    TipprmiStream& prepareResponseStream(bool withResponse, TipprmiStream& stream) const;

    void incRefCount() { ++refCount_; }
    /** True when the last handle has let go. */
    bool decRefCount() { return --refCount_ < 1; }

private:
    TreflectOrbId orbId_;                      // guarded by the run permission
    TipprmiObjectSkeleton* server_ = nullptr;  // not owned; guarded by the run permission
    int refCount_ = 0;                         // guarded by the run permission
};

/** Equal identifiers when both have one, else equal in internal id, broker, namespace and server.
 */
REFLECTORB_API bool operator==(TreflectObjectStub const& a, TreflectObjectStub const& b);
