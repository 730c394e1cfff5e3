#include "handler_threads/WithPermission.h"
#include "ipprmi/TipprmiObjectClient.h"
#include "ipprmi/TipprmiObjectSkeleton.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
// A handle stands on the stub of its object, and stubs belong to the broker's floor.
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/TreflectObjectStub.h"

namespace {

constexpr char kSource[] = "IPPRMI_objectClient";

TipprmiOID noOid() {
    return TipprmiOID(static_cast<char const*>(nullptr), NSID_UNIT);
}

template <class What>
TreflectObjectStub* adopt(What const& what) {
    TreflectObjectHandler* const handler = TreflectObjectHandler::getInstance();
    return handler ? handler->adoptStub(what) : nullptr;
}

TreflectObjectStub* adoptFor(TipprmiObjectSkeleton const* skeleton) {
    if (!skeleton)
        return adopt(noOid());
    TreflectORB::TreflectObjectLocation const location(
        skeleton->getInternalOID(), skeleton->orbId(), const_cast<TipprmiObjectSkeleton*>(skeleton),
        skeleton->hasOID() ? skeleton->getOID() : noOid());
    return adopt(location);
}

void release(TreflectObjectStub* stub) {
    if (!stub)
        return;
    if (TreflectObjectHandler* const handler = TreflectObjectHandler::getInstance())
        handler->releaseStub(stub);
}

}  // namespace

TipprmiObjectClient::TipprmiObjectClient() : stub_(adopt(noOid())) {}

TipprmiObjectClient::TipprmiObjectClient(TipprmiOID const& oid) : stub_(adopt(oid)) {}

TipprmiObjectClient::TipprmiObjectClient(TipprmiObjectSkeleton const* skeleton)
    : stub_(adoptFor(skeleton)) {}

TipprmiObjectClient::TipprmiObjectClient(TipprmiObjectClient const& other)
    : stub_(adopt(other.stub_)) {}

TipprmiObjectClient& TipprmiObjectClient::operator=(TipprmiObjectClient const& other) {
    if (this != &other && stub_ != other.stub_)
        replaceStub(adopt(other.stub_));
    return *this;
}

TipprmiObjectClient::~TipprmiObjectClient() {
    releaseStub_();
}

bool TipprmiObjectClient::forwardMsg(TreflectOrbId const& to, bool withResponse, TipprmiStream& in,
                                     TipprmiStream& out) const {
    return stub_ && stub_->forwardMsg(to, withResponse, in, out) == 1;
}

bool TipprmiObjectClient::dispatch(bool withResponse, unsigned int cc, unsigned int mc,
                                   TipprmiStream& in, TipprmiStream& out) const {
    return stub_ && stub_->dispatch(withResponse, cc, mc, in, out) == 1;
}

void TipprmiObjectClient::connect(TipprmiObjectSkeleton* skeleton) {
    replaceStub(adoptFor(skeleton));
}

void TipprmiObjectClient::connect(TreflectORB const* orb, TipprmiOID const& oid) {
    TreflectObjectHandler* const handler = TreflectObjectHandler::getInstance();
    replaceStub(handler ? handler->adoptStub(orb, oid) : nullptr);
}

TipprmiObjectSkeleton* TipprmiObjectClient::getServer() const {
    return stub_ ? stub_->getServer() : nullptr;
}

TipprmiOID TipprmiObjectClient::identifier() const {
    WithPermission const permission;
    return stub_ && !TreflectObjectHandler::isOfNothing(stub_) ? stub_->getOID() : noOid();
}

bool TipprmiObjectClient::isConnected() const {
    // So that what is caught below is an exception and never a cancellation on its way.
    OSWrap::DisableCancelStateGuard const noCancel(true);
    try {
        return stub_ && stub_->isConnected();
    } catch (...) {
        REFLECTORB_LOG(6, kSource, "TipprmiObjectClient::isConnected() NAGI ");
        return false;
    }
}

TipprmiStream& TipprmiObjectClient::prepareRequestStream_(bool withResponse, unsigned int cc,
                                                          unsigned int mc,
                                                          TipprmiStream& stream) const {
    stream.clear();
    return stub_ ? stub_->prepareRequestStream(withResponse, cc, mc, stream) : stream;
}

TipprmiStream& TipprmiObjectClient::prepareResponseStream_(bool withResponse,
                                                           TipprmiStream& stream) const {
    return stub_ ? stub_->prepareResponseStream(withResponse, stream) : stream;
}

void TipprmiObjectClient::share_(TipprmiObjectClient const& other) {
    WithPermission const permission;
    if (other.stub_)
        other.stub_->incRefCount();
    replaceStub(other.stub_);
}

void TipprmiObjectClient::releaseStub_() {
    replaceStub(nullptr);
}

void TipprmiObjectClient::replaceStub(TreflectObjectStub* adopted) {
    // Stored first: releasing may wait for the permission, and others may use the handle meanwhile.
    TreflectObjectStub* const old = stub_;
    stub_ = adopted;
    release(old);
}

bool operator==(TipprmiObjectClient const& a, TipprmiObjectClient const& b) {
    TreflectObjectStub const* const left = a.getStub_();
    TreflectObjectStub const* const right = b.getStub_();
    return left == right || (left && right && *left == *right);
}

TipprmiStream& operator<<(TipprmiStream& stream, TipprmiObjectClient const& value) {
    if (TreflectObjectStub const* const stub = value.getStub_())
        return stream << static_cast<TreflectObjectLocationIf const&>(*stub);
    return stream << static_cast<TreflectObjectLocationIf const&>(
               TreflectORB::TreflectObjectLocation(0u, TreflectOrbId(), nullptr, noOid()));
}

TipprmiStream& operator>>(TipprmiStream& stream, TipprmiObjectClient& value) {
    TreflectORB::TreflectObjectLocation location(0u, TreflectOrbId(), nullptr, noOid());
    stream >> location;
    // A location that breaks off is not adopted, not even what was read of it: half a name may be
    // that of another object, a whole one without its place would be looked for in the whole group,
    // and an internal id without its broker leads nowhere.
    value.replaceStub(stream.hasUnmarshallingFailed() ? adopt(noOid()) : adopt(location));
    return stream;
}
