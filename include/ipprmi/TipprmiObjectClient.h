#pragma once

#include "ipprmi/TipprmiOID.h"
#include "ipprmi/TipprmiStream.h"
#include "reflect/TreflectObjectLocationIf.h"

class TipprmiObjectSkeleton;
class TreflectORB;
class TreflectObjectStub;

/**
 * A light handle on an object anywhere. All handles on one object share a stub, which the stub
 * handler owns. A value; use it under the run permission.
 *
 * Wire form: the stub's object location.
 */
class REFLECTORB_API TipprmiObjectClient {
public:
    /** A handle on nothing (the invalid stub). */
    TipprmiObjectClient();
    /** Locates the object: may ask every broker of the group, one after the other. */
    explicit TipprmiObjectClient(TipprmiOID const& oid);
    explicit TipprmiObjectClient(TipprmiObjectSkeleton const* skeleton);
    /** A copy of a handle that is not connected but has an identifier looks for the object again.
     */
    TipprmiObjectClient(TipprmiObjectClient const& other);
    TipprmiObjectClient& operator=(TipprmiObjectClient const& other);
    virtual ~TipprmiObjectClient();

    virtual bool forwardMsg(TreflectOrbId const& to, bool withResponse, TipprmiStream& in,
                            TipprmiStream& out) const;
    virtual bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                          TipprmiStream& out) const;
    virtual void connect(TipprmiObjectSkeleton* skeleton);
    virtual void connect(TreflectORB const* orb, TipprmiOID const& oid);
    /** The object itself when it lives in this process, else null. */
    virtual TipprmiObjectSkeleton* getServer() const;

    bool isConnected() const;
    TreflectObjectStub* getStub_() const { return stub_; }
    /** Takes over a reference that the caller has adopted, and gives back none. */
    void setStub_(TreflectObjectStub* stub) { stub_ = stub; }

protected:
    TipprmiStream& prepareRequestStream_(bool withResponse, unsigned int cc, unsigned int mc,
                                         TipprmiStream& stream) const;
    TipprmiStream& prepareResponseStream_(bool withResponse, TipprmiStream& stream) const;

private:
    TreflectObjectStub* stub_ = nullptr;  // one counted reference; null only without memory
};

/** Equal when the stubs are equal (see TreflectObjectStub). */
REFLECTORB_API bool operator==(TipprmiObjectClient const& a, TipprmiObjectClient const& b);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, TipprmiObjectClient const& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TipprmiObjectClient& value);
