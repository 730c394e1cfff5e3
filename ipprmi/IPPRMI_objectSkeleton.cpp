#include "handler_threads/WithPermission.h"
#include "ipprmi/StandardMethods.h"
#include "ipprmi/TipprmiObjectClient.h"
#include "ipprmi/TipprmiObjectSkeleton.h"
#include "logging/LineLimit.h"
#include "oswrap/CancelGuards.h"
// A server object joins and leaves its broker by itself, and the stubs that lead to it end with it.
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/broker/BrokerLifecycle.h"

namespace {

constexpr char kSource[] = "IPPRMI_objectSkeleton";

// Codes come in messages of others.
Logging::LineLimit unknownMethod(20);

}  // namespace

// The internal id is a placeholder until the broker gives the real one.
TipprmiObjectSkeleton::TipprmiObjectSkeleton(TipprmiOID const& oid)
    : TipprmiObjectBase(oid, static_cast<unsigned int>(oid.getNamespaceId())) {
    TipprmiObjectSkeleton::connect(nullptr, oid);
}

TipprmiObjectSkeleton::TipprmiObjectSkeleton(TreflectORB*, TipprmiOID const& oid)
    : TipprmiObjectSkeleton(oid) {}

TipprmiObjectSkeleton::~TipprmiObjectSkeleton() {
    // The process is ending, and somebody may keep the permission for ever.
    if (BrokerLifecycle::instance().isAbandoned())
        return;
    OSWrap::DisableCancelStateGuard const noCancel(true);
    WithPermission const permission;
    if (orb_)
        orb_->unregisterObject(this);
    TreflectObjectHandler::invalidateStubsOf(this);
    client_.reset();
}

TreflectOrbId TipprmiObjectSkeleton::orbId() const {
    WithPermission const permission;
    return orb_ ? orb_->orbId() : TreflectOrbId();
}

bool TipprmiObjectSkeleton::dispatch(bool, unsigned int, unsigned int mc, TipprmiStream& in,
                                     TipprmiStream& out) {
    switch (mc) {
        case standard::kSetExceptionContainer: {
            TipprmiExceptionContainer container;
            in >> container;
            setExceptionContainer(container);
            prepareResponseStream_(out);
            return true;
        }
        case standard::kGetExceptionContainer:
            prepareResponseStream_(out);
            out << getExceptionContainer();
            return true;
        default:
            REFLECTORB_LOG_LIMITED(unknownMethod, 3, kSource, "Unknown method code %d",
                                   static_cast<int>(mc));
            return false;
    }
}

void TipprmiObjectSkeleton::setExceptionContainer(TipprmiExceptionContainer const& container) {
    exceptionContainer_ = container;
}

TipprmiExceptionContainer TipprmiObjectSkeleton::getExceptionContainer() const {
    return exceptionContainer_;
}

void TipprmiObjectSkeleton::connect(TreflectORB* orb, TipprmiOID const& oid) {
    WithPermission const permission;
    if (orb_)
        orb_->unregisterObject(this);
    setORB(orb ? orb : TreflectORB::getInstance(oid.getNamespaceId()));
    if (orb_ && !orb_->registerObject(this))
        setORB(nullptr);
    client_.reset();
}

TipprmiObjectClient* TipprmiObjectSkeleton::getClient() const {
    WithPermission const permission;
    if (!client_)
        client_ = std::make_unique<TipprmiObjectClient>(this);
    return client_.get();
}

void TipprmiObjectSkeleton::prepareResponseStream_(TipprmiStream& out) const {
    out << exceptionContainer_;
}
