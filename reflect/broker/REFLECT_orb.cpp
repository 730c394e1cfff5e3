// The broker's identity, its messages, and what it forwards. The other REFLECT_orb files hold what
// it sends (Requests), what arrives (Reception, Dispatch), its objects (Registry), their observers
// (Notification), other brokers (Presence), Diagnostics and Lifecycle.
#include "reflect/TreflectORB.h"

#include <new>

#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiStream.h"
#include "logging/Log.h"
#include "reflect/broker/OrbIdentity.h"
#include "reflect/broker/TreflectOrbParts.h"
#include "transport/IdInfo.h"

namespace {

/** The low 20 bits of all transaction ids of a broker: its name and its slot modulo 16. */
unsigned int firstTransactionSeed(TreflectOrbId id) {
    return id.nameId() | (id.slotId() & 0xFu) << 16;
}

}  // namespace

TreflectORB::TreflectORB(NamespaceId const& ns)
    : TerminationImpl(OrbIdentity(TreflectOrbId()).groupOf(ns), ""),
      namespace_(ns),
      orbId_(OrbIdentity(TreflectOrbId()).toOrbId(termId())),
      parts_(std::make_unique<Parts>(*this, firstTransactionSeed(orbId_),
                                     Transport::IdInfo::instance().backlog())) {
    readByWorkers();
    REFLECTORB_LOG(
        5, "REFLECT_orb", "ORB created for actor %s with OrbId 0x%X, TerminationId 0x%08X",
        Transport::IdInfo::instance().getActor().c_str(), orbId_.value(), termId().value());
}

TreflectORB::Parts::Reserve::Reserve()
    : failedCall(static_cast<TreflectORB const*>(nullptr), 0u, Parts::kResponseSize),
      nothing(static_cast<TreflectORB const*>(nullptr), 0u, Parts::kResponseSize),
      sentBack(static_cast<TreflectORB const*>(nullptr), 0u, Parts::kResponseSize) {
    if (failedCall.empty() || nothing.empty() || sentBack.empty())
        throw std::bad_alloc();
    TipprmiStream stream(failedCall, true);
    writeGeneralException(stream, 0);
    failedCall = stream.msg();
    unsigned char const zeros[Parts::kResponseSize / 2] = {};
    TipprmiStream(nothing, true).marshall(zeros, sizeof zeros);
}

TreflectORB::~TreflectORB() = default;

Transport::GroupId TreflectORB::getMyGroup(NamespaceId const& ns) const {
    return OrbIdentity(orbId_).groupOf(ns);
}

NamespaceId TreflectORB::getNamespaceFromGroup(Transport::GroupId const& group) const {
    return OrbIdentity(orbId_).namespaceOf(group);
}

TreflectOrbId TreflectORB::convertId(Transport::TerminationId const& id) const {
    return OrbIdentity(orbId_).toOrbId(id);
}

Transport::TerminationId TreflectORB::convertId(TreflectOrbId const& id) const {
    return OrbIdentity(orbId_).toTerminationId(id);
}

TreflectMessage TreflectORB::allocateRequest(unsigned int size) const {
    TreflectMessage message(this, 0u, size);
    message.kind(TreflectMessage::kRequest);
    return message;
}

TreflectMessage TreflectORB::allocateResponse(TreflectMessage const& request,
                                              unsigned int size) const {
    TreflectMessage message(this, request.transactionId(), size);
    message.kind(TreflectMessage::kResponse);
    message.type(request.type());
    return message;
}

TreflectMessage TreflectORB::reallocateMessage(TreflectMessage const& message,
                                               unsigned int size) const {
    return TreflectMessage(this, message, size);
}

TreflectHandlerThreads& TreflectORB::handlerThreads() {
    return TreflectRunPermission::handlerThreads();
}
void TreflectORB::enterHandlerState(bool getPermission) {
    TreflectRunPermission::enterHandlerState(getPermission);
}
void TreflectORB::leaveHandlerState(bool releasePermission) {
    TreflectRunPermission::leaveHandlerState(releasePermission);
}
void TreflectORB::checkHandlerState() {
    TreflectRunPermission::checkHandlerState();
}
void TreflectORB::getRunPermission() {
    TreflectRunPermission::getRunPermission();
}
void TreflectORB::releaseRunPermission() {
    TreflectRunPermission::releaseRunPermission();
}
bool TreflectORB::hasRunPermission() {
    return TreflectRunPermission::hasRunPermission();
}
bool TreflectORB::isHandlerThread() {
    return TreflectRunPermission::isHandlerThread();
}
unsigned long TreflectORB::getRunPermissionCount() {
    return TreflectRunPermission::getRunPermissionCount();
}
unsigned long TreflectORB::getRunPermissionOwner() {
    return TreflectRunPermission::getRunPermissionOwner();
}
