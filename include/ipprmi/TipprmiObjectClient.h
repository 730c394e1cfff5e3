#pragma once

#include "ipprmi/TipprmiOID.h"
#include "ipprmi/TipprmiStream.h"
#include "reflect/TreflectObjectLocationIf.h"

class TipprmiObjectSkeleton;
class TreflectORB;
class TreflectObjectStub;

/**
 * A light handle on an object anywhere. All handles on one object share a stub, which the stub
 * handler owns. A value; use it under the run permission (making, copying and destroying it take
 * the permission by themselves). A call gives the permission up while it waits: another thread may
 * then assign the handle or destroy it, without harm to calls of ClientCallHelper.
 *
 * What it costs: a handle on a name that nobody serves asks every broker of the group when it is
 * made, when it is copied and when it is called. A handle on an object of a broker that has gone
 * stays dead; make a new one from the identifier to find the object again.
 *
 * Virtual operations in slot order: destructor, forwardMsg, dispatch, connect (to a skeleton),
 * connect (by identifier), getServer.
 *
 * Wire form: the stub's object location.
 */
class REFLECTORB_API TipprmiObjectClient {
public:
    /** A handle on nothing (the invalid stub). */
    TipprmiObjectClient();
    /** Locates the object: may ask every broker of the group, one after the other. */
    explicit TipprmiObjectClient(TipprmiOID const& oid);
    /** A handle on an object of this process; on nothing when null. */
    explicit TipprmiObjectClient(TipprmiObjectSkeleton const* skeleton);
    /** A copy of a handle that is not connected but has an identifier looks for the object again.
     */
    TipprmiObjectClient(TipprmiObjectClient const& other);
    /** No effect when both share a stub already. */
    TipprmiObjectClient& operator=(TipprmiObjectClient const& other);
    virtual ~TipprmiObjectClient();

    /** Has the broker carry a request that is complete; true on success. */
    virtual bool forwardMsg(TreflectOrbId const& to, bool withResponse, TipprmiStream& in,
                            TipprmiStream& out) const;
    /** Sends a prepared request, or calls the object of this process; true on success. */
    virtual bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                          TipprmiStream& out) const;
    /** Leaves the present object for that one. */
    virtual void connect(TipprmiObjectSkeleton* skeleton);
    /** Leaves the present object for the one of that identifier; `orb` is of no account. */
    virtual void connect(TreflectORB const* orb, TipprmiOID const& oid);
    /** The object itself when it lives in this process, else null. */
    virtual TipprmiObjectSkeleton* getServer() const;

    /** The object's identifier, or, of an object without one, the name by which its broker finds it
     * all the same. Without a text for a handle on nothing. Asks nobody. */
    TipprmiOID identifier() const;
    /** Whether the object has been found and, as far as is known, is still there. */
    bool isConnected() const;
    /** The stub that the handle shares; null only without memory. */
    TreflectObjectStub* getStub_() const { return stub_; }
    /** Takes over a reference that the caller has adopted, and gives back none. */
    void setStub_(TreflectObjectStub* stub) { stub_ = stub; }
    /** As an assignment, but never looks for an object that is not connected, so that the run
     * permission is kept. */
    void share_(TipprmiObjectClient const& other);

protected:
    /** Empties `stream` and starts a request. */
    TipprmiStream& prepareRequestStream_(bool withResponse, unsigned int cc, unsigned int mc,
                                         TipprmiStream& stream) const;
    /** Starts reading a response. */
    TipprmiStream& prepareResponseStream_(bool withResponse, TipprmiStream& stream) const;
    /** Lets go of the stub for good: for destructors. */
    void releaseStub_();

private:
    friend REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream,
                                                    TipprmiObjectClient& value);
    /** Keeps an adopted stub in place of the present one, which is released. */
    void replaceStub(TreflectObjectStub* adopted);

    // One counted reference; null only without memory. Guarded by the run permission.
    TreflectObjectStub* stub_ = nullptr;
};

/** Equal when the stubs are equal (see TreflectObjectStub). */
REFLECTORB_API bool operator==(TipprmiObjectClient const& a, TipprmiObjectClient const& b);
inline bool operator!=(TipprmiObjectClient const& a, TipprmiObjectClient const& b) {
    return !(a == b);
}
/** A handle travels as the location of its object, see TreflectObjectLocationIf. */
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, TipprmiObjectClient const& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TipprmiObjectClient& value);
