#pragma once

#include <atomic>

#include "handler_threads/RunPermission.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectObjectStubContainer.h"

/**
 * The process's table of stubs: gives every handle the stub of its object. Created on first use and
 * never destroyed. Any thread: all operations hold the run permission for their whole length, but
 * while they wait for the answer of another broker it is given up.
 */
class REFLECTORB_API TreflectObjectHandler {
public:
    /** The stub of no object, named "InvalidStub". */
    class REFLECTORB_API TreflectObjectInvalidStub : public TreflectObjectStub {
    public:
        TreflectObjectInvalidStub();
        ~TreflectObjectInvalidStub() override;
    };

    TreflectObjectHandler(TreflectObjectHandler const&) = delete;
    TreflectObjectHandler& operator=(TreflectObjectHandler const&) = delete;

    /** Null only when there is no memory. */
    static TreflectObjectHandler* getInstance();

    /** One more reference to a stub; null is passed through. */
    TreflectObjectStub* adoptStub(TreflectObjectStub* stub);
    /** A reference to the stub of a location, which is made if there is no valid one. Null only
     * when there is no memory. */
    TreflectObjectStub* adoptStub(TreflectObjectLocationIf const& location);
    /** Looks for the object first, which may ask every broker of the group. Without identifier: the
     * invalid stub. */
    TreflectObjectStub* adoptStub(TipprmiOID const& oid);
    /** The same; `orb` is of no account. */
    TreflectObjectStub* adoptStub(TreflectORB const* orb, TipprmiOID const& oid);
    /** Gives a reference back; the last one frees the stub. Null is ignored. */
    void releaseStub(TreflectObjectStub* stub);
    /** Has a stub with an identifier that is not connected look for its object. */
    void checkConnect(TreflectObjectStub* stub);
    /** Makes every stub of the broker's objects invalid. */
    void invalidateStubs(TreflectOrbId const& orb);
    /** Logs it at level 3 when an object that has just joined its broker has the identifier of one
     * of another process, on which there is a handle. */
    static void tellHiddenBy(TipprmiObjectSkeleton const& object);
    /** Makes every stub that leads to `server` invalid, if there are stubs at all. */
    static void invalidateStubsOf(TipprmiObjectSkeleton const* server);
    /** Whether it is the stub of no object, which never becomes one of an object. */
    static bool isOfNothing(TreflectObjectStub const* stub);

private:
    friend class TreflectObjectStub;

    TreflectObjectHandler();
    ~TreflectObjectHandler() = delete;
    /** Where the broker of a namespace finds an object; nowhere when that place has gone since. The
     * caller has the run permission and keeps it until the answer is in the table. */
    static TreflectORB::TreflectObjectLocation search(TipprmiOID const& oid, NamespaceId asked);
    /** False without memory. */
    bool enter(TreflectObjectStub* stub) OSW_REQUIRES_PERMISSION;
    /** For a stub that changes: takes it out of the table and answers whether it was in. */
    static bool takeOut(TreflectObjectStub* stub) OSW_REQUIRES_PERMISSION;
    static void putBack(TreflectObjectStub* stub) OSW_REQUIRES_PERMISSION;

    static std::atomic<TreflectObjectHandler*> instance_;

    TreflectObjectStubContainer stubs_ OSW_GUARDED_BY_PERMISSION;
    TreflectObjectInvalidStub invalidStub_;  // counted, never freed
};
