#pragma once

#include "reflect/TreflectORB.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/TreflectObjectStub.h"

/**
 * Keeps a stub for the length of a call: while the call waits, other threads run, and may let go of
 * the handle through which it was made. Without the permission, which is misuse, counts must not be
 * touched; and a stub that nobody has counted is not the handler's.
 */
class StubInUse {
public:
    explicit StubInUse(TreflectObjectStub const& stub)
        : stub_(TreflectORB::hasRunPermission() && stub.refCount() > 0
                    ? const_cast<TreflectObjectStub*>(&stub)
                    : nullptr) {
        if (stub_)
            stub_->incRefCount();
    }
    ~StubInUse() {
        if (stub_)
            TreflectObjectHandler::getInstance()->releaseStub(stub_);
    }
    StubInUse(StubInUse const&) = delete;
    StubInUse& operator=(StubInUse const&) = delete;

private:
    TreflectObjectStub* const stub_;  // stubs are never const objects
};
