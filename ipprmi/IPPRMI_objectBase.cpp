#include <cstdio>

#include "ipprmi/TipprmiObjectBase.h"
#include "ipprmi/TipprmiObjectSkeleton.h"
#include "logging/Log.h"
// The broker finds its objects by identifier, and must hear of a new one.
#include "reflect/TreflectORB.h"

namespace {

constexpr char kSource[] = "IPPRMI_objectBase";

TipprmiOID madeUpOid(TreflectOrbId orb, unsigned int internalOid) {
    char text[32] = {};
    std::snprintf(text, sizeof text, "rmi_%X_%X", orb.value(), internalOid);
    return TipprmiOID(text, NSID_UNIT);
}

}  // namespace

TipprmiObjectBase::TipprmiObjectBase(TipprmiOID const& oid, unsigned int internalOid)
    : internalOid_(internalOid), oid_(oid) {}

TipprmiObjectBase::~TipprmiObjectBase() = default;

TipprmiOID TipprmiObjectBase::getOID() const {
    return hasOID() ? oid_ : madeUpOid(orbId(), getInternalOID());
}

unsigned int TipprmiObjectBase::getInternalOID() const {
    return internalOid_;
}

NamespaceId TipprmiObjectBase::getNamespaceId() const {
    return oid_.getNamespaceId();
}

bool TipprmiObjectBase::dispatch(bool, unsigned int, unsigned int, TipprmiStream&, TipprmiStream&) {
    return false;
}

void TipprmiObjectBase::setExceptionContainer(TipprmiExceptionContainer const&) {
    REFLECTORB_LOG(2, kSource, "%s should never be called", __func__);
}

TipprmiExceptionContainer TipprmiObjectBase::getExceptionContainer() const {
    REFLECTORB_LOG(2, kSource, "%s should never be called", __func__);
    return {};
}

bool TipprmiObjectBase::hasOID() const {
    return oid_.getIdString() != nullptr;
}

void TipprmiObjectBase::setOID(TipprmiOID const& oid) {
    oid_ = oid;
    auto const* const server = dynamic_cast<TipprmiObjectSkeleton const*>(this);
    if (server && server->getORB())
        server->getORB()->identifierChanged_(*server);
}
