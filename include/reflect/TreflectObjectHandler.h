#pragma once

#include "reflect/TreflectObjectStub.h"

/**
 * The process's table of stubs: gives every handle the stub of its object. All operations hold the
 * run permission for their whole length. Never destroyed.
 */
class REFLECTORB_API TreflectObjectHandler {
public:
    /** The stub of no object, named "InvalidStub". */
    class TreflectObjectInvalidStub : public TreflectObjectStub {
    public:
        TreflectObjectInvalidStub();
        ~TreflectObjectInvalidStub() override;
    };

    static TreflectObjectHandler* getInstance();

    TreflectObjectStub* adoptStub(TreflectObjectStub* stub);
    TreflectObjectStub* adoptStub(TreflectObjectLocationIf const& location);
    TreflectObjectStub* adoptStub(TipprmiOID const& oid);
    TreflectObjectStub* adoptStub(TreflectORB const* orb, TipprmiOID const& oid);
    void releaseStub(TreflectObjectStub* stub);
    /** Makes every stub of the broker's objects invalid. */
    void invalidateStubs(TreflectOrbId const& orb);

private:
    TreflectObjectHandler();
    void checkConnect(TreflectObjectStub* stub);
};
