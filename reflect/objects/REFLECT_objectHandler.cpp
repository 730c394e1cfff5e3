#include <new>

#include "handler_threads/WithPermission.h"
#include "ipprmi/TipprmiObjectSkeleton.h"
#include "logging/LineLimit.h"
#include "oswrap/OutOfMemory.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/broker/BrokerLifecycle.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/process/Learning.h"

std::atomic<TreflectObjectHandler*> TreflectObjectHandler::instance_{nullptr};

namespace {

void logHidden(unsigned int own, TreflectObjectLocationIf const& remote) {
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, "REFLECT_objectHandler",
                           "object 0x%X of this process hides 0x%X of ORB 0x%X: both are \"%s\"",
                           own, remote.getInternalOID(), remote.orbId().value(),
                           remote.getOID().getIdString());
}

/** Logs it when an object of this process has the identifier of one of another process, on which a
 * handle has come: nobody finds that one here. Two brokers tell nothing of each other's objects, so
 * this is the moment to know; tellHiddenBy is the other one. */
void tellHidden(TreflectObjectLocationIf const& remote) {
    bool const isNamed = remote.hasOID() && remote.getInternalOID() != 0;
    if (remote.getServer() || !isNamed || remote.getNamespaceId() != NSID_UNIT)
        return;
    TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT);
    if (!orb || remote.orbId() == orb->orbId())
        return;
    unsigned int const own = orb->locateLocalObject_(remote.getOID()).getInternalOID();
    if (own != 0)
        logHidden(own, remote);
}

}  // namespace

TreflectObjectHandler::TreflectObjectInvalidStub::TreflectObjectInvalidStub()
    : TreflectObjectStub(TipprmiOID("InvalidStub", NSID_UNIT)) {}

TreflectObjectHandler::TreflectObjectInvalidStub::~TreflectObjectInvalidStub() = default;

// The invalid stub has a reference of the handler's own, and one as an adopted stub.
TreflectObjectHandler::TreflectObjectHandler() {
    invalidStub_.incRefCount();
    stubs_.insert(&invalidStub_);
    adoptStub(TipprmiOID(static_cast<char const*>(nullptr), NSID_UNIT));
}

TreflectObjectHandler* TreflectObjectHandler::getInstance() {
    if (TreflectObjectHandler* const instance = instance_.load(std::memory_order_acquire))
        return instance;
    WithPermission const permission;
    if (!instance_.load(std::memory_order_acquire))
        instance_.store(new (std::nothrow) TreflectObjectHandler, std::memory_order_release);
    return instance_.load(std::memory_order_acquire);
}

TreflectObjectStub* TreflectObjectHandler::adoptStub(TreflectObjectStub* stub) {
    WithPermission const permission;
    if (stub) {
        stub->incRefCount();
        if (!stub->isConnected())
            checkConnect(stub);
    }
    return stub;
}

TreflectObjectStub* TreflectObjectHandler::adoptStub(TreflectObjectLocationIf const& location) {
    WithPermission const permission;
    if (!location.hasOID() && location.getInternalOID() == 0) {
        invalidStub_.incRefCount();
        return &invalidStub_;
    }
    TreflectObjectStub* stub = stubs_.find(location);
    if (!stub) {
        stub = new (std::nothrow) TreflectObjectStub(location);
        if (!stub || !enter(stub)) {
            delete stub;  // without memory the handle leads nowhere
            invalidStub_.incRefCount();
            return &invalidStub_;
        }
        tellHidden(location);
    } else if (location.getServer() && !stub->getServer()) {
        // Made of a handle without a name that another process sent: its calls would go round
        // through the broker, and those that an object makes through its own handle never end.
        stub->connect(location.getServer());
    }
    return adoptStub(stub);
}

bool TreflectObjectHandler::enter(TreflectObjectStub* stub) {
    return OSWrap::withMemory([&] {
        handlerthreads::assertPermission();
        stubs_.insert(stub);
    });
}

TreflectObjectStub* TreflectObjectHandler::adoptStub(TipprmiOID const& oid) {
    WithPermission const permission;
    if (!oid.getIdString()) {
        invalidStub_.incRefCount();
        return &invalidStub_;
    }
    return adoptStub(search(oid, NSID_UNIT));
}

// A broker that goes while the thread queues for the permission has had its stubs made invalid
// already; whatever is put into the table now must not lead there.
TreflectORB::TreflectObjectLocation TreflectObjectHandler::search(TipprmiOID const& oid,
                                                                  NamespaceId asked) {
    TreflectORB const* const orb = TreflectORB::getInstance(asked);
    if (!orb)
        return TreflectORB::TreflectObjectLocation(oid);
    TreflectORB::TreflectObjectLocation const found = orb->locateObject(oid);
    bool const answered = found.hasOID() && found.getInternalOID() != 0 && !found.getServer();
    if (answered && !exists(orb->convertId(found.orbId())))
        return TreflectORB::TreflectObjectLocation(oid);
    return found;
}

TreflectObjectStub* TreflectObjectHandler::adoptStub(TreflectORB const*, TipprmiOID const& oid) {
    return adoptStub(oid);
}

void TreflectObjectHandler::releaseStub(TreflectObjectStub* stub) {
    // The process is ending, and somebody may keep the permission for ever.
    if (!stub || BrokerLifecycle::instance().isAbandoned())
        return;
    WithPermission const permission;
    if (!stub->decRefCount())
        return;
    stubs_.erase(stub);
    if (stub != &invalidStub_)
        delete stub;
}

void TreflectObjectHandler::checkConnect(TreflectObjectStub* stub) {
    WithPermission const permission;
    if (stub != &invalidStub_ && !stub->isConnected() && stub->hasOID())
        stub->connect(nullptr, stub->getOID());
}

void TreflectObjectHandler::invalidateStubs(TreflectOrbId const& orb) {
    WithPermission const permission;
    stubs_.invalidateStubs(orb);
    Learning::instance().forget(orb);
}

void TreflectObjectHandler::tellHiddenBy(TipprmiObjectSkeleton const& object) {
    WithPermission const permission;
    TreflectObjectHandler* const instance = instance_.load(std::memory_order_acquire);
    if (!instance || !object.hasOID() || object.getNamespaceId() != NSID_UNIT)
        return;
    if (auto const* const hidden = instance->stubs_.findRemote(object.getOID(), object.orbId()))
        logHidden(object.getInternalOID(), *hidden);
}

void TreflectObjectHandler::invalidateStubsOf(TipprmiObjectSkeleton const* server) {
    WithPermission const permission;
    if (TreflectObjectHandler* const instance = instance_.load(std::memory_order_acquire))
        instance->stubs_.invalidateStubs(server);
}

bool TreflectObjectHandler::isOfNothing(TreflectObjectStub const* stub) {
    TreflectObjectHandler* const instance = instance_.load(std::memory_order_acquire);
    return instance && stub == &instance->invalidStub_;
}

bool TreflectObjectHandler::takeOut(TreflectObjectStub* stub) {
    TreflectObjectHandler* const instance = instance_.load(std::memory_order_acquire);
    return instance && instance->stubs_.erase(stub);
}

void TreflectObjectHandler::putBack(TreflectObjectStub* stub) {
    instance_.load(std::memory_order_acquire)->stubs_.insert(stub);
}
