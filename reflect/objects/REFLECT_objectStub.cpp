#include <cstdint>

#include "handler_threads/WithPermission.h"
#include "ipprmi/CallOutcome.h"
#include "ipprmi/StandardMethods.h"
#include "ipprmi/TipprmiObjectSkeleton.h"
#include "logging/LineLimit.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/objects/StubInUse.h"

namespace {

constexpr char kSource[] = "REFLECT_objectStub";

TipprmiOID noOid() {
    return TipprmiOID(static_cast<char const*>(nullptr), NSID_UNIT);
}

TipprmiOID oidOf(TreflectObjectLocationIf const& location) {
    return location.hasOID() ? location.getOID() : noOid();
}

TipprmiOID oidOf(TipprmiObjectSkeleton const& skeleton) {
    return skeleton.hasOID() ? skeleton.getOID() : noOid();
}

/** Handles come in messages of others, and what they lead to is called, such as observers. */
Logging::LineLimit invalidHandle;
Logging::LineLimit preparedInvalid;
Logging::LineLimit notConnected;
Logging::LineLimit sentInvalid;
Logging::LineLimit notForwarded;
Logging::LineLimit sentNowhere;
Logging::LineLimit notServed;

unsigned int orbOfNamespace(NamespaceId ns) {
    TreflectORB const* const orb = TreflectORB::getInstance(ns);
    return orb ? orb->orbId().value() : 0;
}

// A failed call leaves nothing but its exception in the response.
void answerFailure(TipprmiStream& out, int code) {
    out.clear();
    writeGeneralException(out, static_cast<unsigned int>(code));
}

/** Whether a call that failed was not answered before its deadline: then `out` says so already. */
bool hasTimedOut(TipprmiStream const& out) {
    TipprmiStream fromStart(out.msg(), false);
    return !fromStart.empty() && readOutcome(fromStart).code() == TipprmiFailure::kTimedOut;
}

// As in a message, only what was written counts, not how far its writer has looked at it.
void forgetFailedRead(TipprmiStream& stream) {
    if (stream.hasUnmarshallingFailed() && !stream.hasMarshallingFailed())
        stream = TipprmiStream(stream.msg(), false);
}

}  // namespace

TipprmiObjectSkeleton* const TreflectObjectStub::INVALIDOBJECT =
    reinterpret_cast<TipprmiObjectSkeleton*>(~std::uintptr_t{0});

// ---- Construction and assignment ---------------------------------------------------------------

TreflectObjectStub::TreflectObjectStub() : TipprmiObjectBase(noOid(), 0) {}

TreflectObjectStub::TreflectObjectStub(TipprmiOID const& oid) : TipprmiObjectBase(oid, 0) {}

TreflectObjectStub::TreflectObjectStub(TreflectObjectLocationIf const& location)
    : TreflectObjectLocationIf(),
      TipprmiObjectBase(oidOf(location), location.getInternalOID()),
      orbId_(location.orbId()),
      server_(location.getServer()) {
    if (internalOid() == 0 && !TipprmiObjectBase::hasOID())
        REFLECTORB_LOG_LIMITED(
            invalidHandle, 3, kSource,
            "TreflectObjectStub(ol) this=0x%p,object=%p,oid=NULL,ioid=%X,orbId=0x%X",
            static_cast<void*>(this), static_cast<void*>(server_), internalOid(), orbId_.value());
}

TreflectObjectStub::TreflectObjectStub(TipprmiObjectSkeleton* skeleton)
    : TipprmiObjectBase(oidOf(*skeleton), skeleton->getInternalOID()),
      orbId_(skeleton->orbId()),
      server_(skeleton) {
    if (internalOid() == 0)
        REFLECTORB_LOG(
            3, kSource, "TreflectObjectStub(object) this=0x%p,object=%p,ioid=%X,orbId=0x%X",
            static_cast<void*>(this), static_cast<void*>(server_), internalOid(), orbId_.value());
}

TreflectObjectStub::TreflectObjectStub(TreflectObjectStub const& other)
    : TreflectObjectLocationIf(other),
      TipprmiObjectBase(other),
      orbId_(other.orbId_),
      server_(other.server_) {
    if (internalOid() == 0)
        REFLECTORB_LOG_LIMITED(invalidHandle, 3, kSource,
                               "TreflectObjectStub(other) this=0x%p,object=%p,ioid=%X,orbId=0x%X",
                               static_cast<void*>(this), static_cast<void*>(server_), internalOid(),
                               orbId_.value());
}

TreflectObjectStub& TreflectObjectStub::operator=(TreflectObjectStub const& other) {
    if (this != &other)
        lead(other.oid(), other.internalOid(), other.orbId_, other.server_);
    if (internalOid() == 0)
        REFLECTORB_LOG_LIMITED(invalidHandle, 3, kSource,
                               "operator=() object=%p,ioid=%X,orbId=0x%X",
                               static_cast<void*>(server_), internalOid(), orbId_.value());
    return *this;
}

TreflectObjectStub::~TreflectObjectStub() = default;

void TreflectObjectStub::lead(TipprmiOID const& oid, unsigned int internalOid, TreflectOrbId orb,
                              TipprmiObjectSkeleton* server) {
    WithPermission const permission;
    bool const inTable = TreflectObjectHandler::takeOut(this);
    setOID(oid);
    setInternalOID(internalOid);
    orbId_ = orb;
    server_ = server;
    metaCache_ = nullptr;
    if (inTable)
        TreflectObjectHandler::putBack(this);
}

bool operator==(TreflectObjectStub const& a, TreflectObjectStub const& b) {
    if (a.hasOID() && b.hasOID())
        return a.oid() == b.oid();
    return a.internalOid() == b.internalOid() && a.orbId_ == b.orbId_ &&
           a.oid().getNamespaceId() == b.oid().getNamespaceId() && a.server_ == b.server_;
}

// ---- Where the object is -----------------------------------------------------------------------

bool TreflectObjectStub::hasOID() const {
    return TipprmiObjectBase::hasOID();
}

TipprmiOID TreflectObjectStub::getOID() const {
    return TipprmiObjectBase::getOID();
}

TreflectOrbId TreflectObjectStub::orbId() const {
    return orbId_;
}

unsigned int TreflectObjectStub::getInternalOID() const {
    return TipprmiObjectBase::getInternalOID();
}

NamespaceId TreflectObjectStub::getNamespaceId() const {
    return TipprmiObjectBase::getNamespaceId();
}

TipprmiObjectSkeleton* TreflectObjectStub::getServer() const {
    return isValid() ? server_ : nullptr;
}

bool TreflectObjectStub::isConnected() const {
    return isValid() && internalOid() != 0;
}

char const* TreflectObjectStub::className() const {
    return "TreflectObjectStub";
}

// The search may wait for other brokers with the permission given up. What it finds is of no use to
// a stub that has become invalid meanwhile; and a search that found nothing does not undo what
// another thread has found. All empty handles share the stub of no object: it has a name, but must
// not lead to whatever somebody gives that name, and calls through it are not to bother the group.
void TreflectObjectStub::connect(TreflectORB const*, TipprmiOID const& oid) {
    WithPermission const permission;
    if (!isValid() || TreflectObjectHandler::isOfNothing(this))
        return;
    TipprmiOID const sought = oid;
    bool const wasConnected = isConnected();
    TreflectORB::TreflectObjectLocation const found =
        TreflectObjectHandler::search(sought, sought.getNamespaceId());
    if (!isValid() || (found.getInternalOID() == 0 && !wasConnected && isConnected()))
        return;
    lead(sought, found.getInternalOID(), found.orbId(), found.getServer());
}

void TreflectObjectStub::connect(TipprmiOID const& oid) {
    connect(nullptr, oid);
}

void TreflectObjectStub::connect(TipprmiObjectSkeleton* skeleton) {
    if (skeleton)
        lead(oidOf(*skeleton), skeleton->getInternalOID(), skeleton->orbId(), skeleton);
    else
        lead(noOid(), 0, orbId_, nullptr);
}

// ---- Calls -------------------------------------------------------------------------------------

TipprmiStream& TreflectObjectStub::prepareRequestStream(bool withResponse, unsigned int cc,
                                                        unsigned int mc,
                                                        TipprmiStream& stream) const {
    return prepareRequestStream_(withResponse, cc, mc, stream);
}

TipprmiStream& TreflectObjectStub::prepareResponseStream(bool withResponse,
                                                         TipprmiStream& stream) const {
    return prepareResponseStream_(withResponse, stream);
}

TipprmiStream& TreflectObjectStub::prepareRequestStream_(bool withResponse, unsigned int cc,
                                                         unsigned int mc, TipprmiStream& s) const {
    if (!isValid()) {
        REFLECTORB_LOG_LIMITED(
            preparedInvalid, 4, kSource,
            "prepareRequestStream_(this=0x%p,cc=0x%X,mc=%d,orbId=%X) to stub object set to invalid",
            static_cast<void const*>(this), cc, static_cast<int>(mc), orbId_.value());
        return s;
    }
    s.clear();
    if (!getServer() && internalOid() == 0)
        reconnect(cc, mc);
    // The search may have found the object in this process, which is called without a header.
    if (getServer())
        return s;
    return s << internalOid() << withResponse << cc << mc;
}

void TreflectObjectStub::reconnect(unsigned int cc, unsigned int mc) const {
    REFLECTORB_LOG_LIMITED(
        notConnected, 4, kSource,
        "prepareRequestStream_(this=0x%p,cc=0x%X,mc=%d,orbId=%X) to non connected stub object",
        static_cast<void const*>(this), cc, static_cast<int>(mc),
        orbOfNamespace(oid().getNamespaceId()));
    // Stubs are never const objects; a search changes what they know, not what they stand for.
    if (hasOID())
        const_cast<TreflectObjectStub*>(this)->connect(getOID());
}

TipprmiStream& TreflectObjectStub::prepareResponseStream_(bool withResponse,
                                                          TipprmiStream& s) const {
    if (withResponse) {
        TipprmiExceptionContainer container;
        s >> container;
        if (container.getExceptionType() == TipprmiGeneralException::getExceptionClassType())
            s.stopUnmarshalling();
    }
    return s;
}

int TreflectObjectStub::forwardMsg(TreflectOrbId const& to, bool withResponse,
                                   TipprmiStream& request, TipprmiStream& response) const {
    TreflectORB* const orb = TreflectORB::getInstance(NSID_UNIT);
    return orb && orb->forwardMsg(to, withResponse, request, response) ? 1 : 0;
}

int TreflectObjectStub::dispatch(bool withResponse, unsigned int cc, unsigned int mc,
                                 TipprmiStream& in, TipprmiStream& out) const {
    int result = 0;
    if (!isValid()) {
        REFLECTORB_LOG_LIMITED(
            sentInvalid, 4, kSource,
            "dispatch(this=0x%p,cc=0x%X,mc=%d,orbId=%X) request to stub object set to invalid",
            static_cast<void const*>(this), cc, static_cast<int>(mc), orbId_.value());
    } else if (getServer()) {
        return dispatchToServer(withResponse, cc, mc, in, out);
    } else if (internalOid() != 0) {
        result = forwardMsg(orbId_, withResponse, in, out);
        if (result == 1 || hasTimedOut(out))
            return result;
        REFLECTORB_LOG_LIMITED(notForwarded, 3, kSource, "Message forwarding failed");
    } else {
        REFLECTORB_LOG_LIMITED(
            sentNowhere, 3, kSource,
            "dispatch(this=0x%p,cc=0x%X,mc=%d,orbId=%X) request to invalid stub object",
            static_cast<void const*>(this), cc, static_cast<int>(mc), orbId_.value());
    }
    answerFailure(out, result);
    return result;
}

int TreflectObjectStub::dispatchToServer(bool withResponse, unsigned int cc, unsigned int mc,
                                         TipprmiStream& in, TipprmiStream& out) const {
    // The object may let go of the last handle that keeps this stub.
    TreflectOrbId const orb = orbId_;
    forgetFailedRead(in);
    out.ensureBuffer_();
    int const result = getServer()->dispatch(withResponse, cc, mc, in, out) ? 1 : 0;
    forgetFailedRead(out);
    if (result != 1)
        REFLECTORB_LOG_LIMITED(
            notServed, 3, kSource, "dispatch(this=0x%p,cc=0x%X,mc=%d,orbId=%X) to object failed",
            static_cast<void const*>(this), cc, static_cast<int>(mc), orb.value());
    return result;
}

// ---- The object's exception container ----------------------------------------------------------

void TreflectObjectStub::setExceptionContainer(TipprmiExceptionContainer const& container) const {
    if (!isValid())
        return;
    if (TipprmiObjectSkeleton* const server = getServer()) {
        server->setExceptionContainer(container);
        return;
    }
    StubInUse const inUse(*this);
    TipprmiStream request(TipprmiStream::kUsualSize);
    TipprmiStream response = TipprmiStream::withoutBuffer_();
    prepareRequestStream_(true, standard::kClass, standard::kSetExceptionContainer, request)
        << container;
    dispatch(true, standard::kClass, standard::kSetExceptionContainer, request, response);
    prepareResponseStream_(true, response);
    // Both operations of the pair report under the code of the second.
    if (response.hasUnmarshallingFailed())
        response.printUnmarshallError(standard::kClass, standard::kGetExceptionContainer);
}

void TreflectObjectStub::setExceptionContainer(TipprmiExceptionContainer const& container) {
    static_cast<TreflectObjectStub const*>(this)->setExceptionContainer(container);
}

TipprmiExceptionContainer TreflectObjectStub::getExceptionContainer() const {
    TipprmiExceptionContainer container;
    if (!isValid()) {
        container.setExceptionType(TipprmiGeneralException::getExceptionClassType());
        container.setExceptionData(TipprmiGeneralException(0));
        return container;
    }
    if (TipprmiObjectSkeleton* const server = getServer())
        return server->getExceptionContainer();
    StubInUse const inUse(*this);
    TipprmiStream request(TipprmiStream::kUsualSize);
    TipprmiStream response = TipprmiStream::withoutBuffer_();
    prepareRequestStream_(true, standard::kClass, standard::kGetExceptionContainer, request);
    dispatch(true, standard::kClass, standard::kGetExceptionContainer, request, response);
    prepareResponseStream_(true, response);
    response >> container;
    if (response.hasUnmarshallingFailed())
        response.printUnmarshallError(standard::kClass, standard::kGetExceptionContainer);
    return container;
}
