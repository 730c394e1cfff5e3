#include "handler_threads/WithPermission.h"
#include "logging/LineLimit.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObserver.h"
#include "reflect/broker/BrokerLifecycle.h"
#include "reflect/notices/ClassRecords.h"

namespace {

constexpr unsigned int kNotify = 0;

}  // namespace

TreflectObserverSkeleton::TreflectObserverSkeleton(TipprmiOID const& oid,
                                                   TreflectObject const* parent,
                                                   std::string const& name)
    : TreflectServerObject(oid, parent, name) {
    client_.reset();
    setObserver(true);
}

TreflectObserverSkeleton::~TreflectObserverSkeleton() {
    setObserver(false);
}

unsigned int TreflectObserverSkeleton::getServerClassId() const {
    return kClassId;
}

TipprmiSequence<unsigned int, 0u> TreflectObserverSkeleton::getServerClassIdSeq() const {
    TipprmiSequence<unsigned int, 0u> ids;
    ids.push_back(kClassId);
    return ids;
}

TreflectObserverClient* TreflectObserverSkeleton::getClient() const {
    WithPermission const permission;
    if (!client_)
        client_ = std::make_unique<TreflectObserverClient>(this);
    return static_cast<TreflectObserverClient*>(client_.get());
}

bool TreflectObserverSkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc,
                                        TipprmiStream& in, TipprmiStream& out) {
    if (cc == kClassId && mc == kNotify) {
        serveNotification(in, out);
        return true;
    }
    if (TreflectServerObject::dispatch(withResponse, cc, mc, in, out))
        return true;
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(
        limit, 3, "REFLECT_ObserverSkeleton",
        "TreflectObserverSkeleton[oid=%s]::dispatch(cc=0x%08X, mc=%u) - METHOD NOT FOUND",
        getOID().getIdString(), cc, mc);
    return false;
}

void TreflectObserverSkeleton::serveNotification(TipprmiStream& in, TipprmiStream& out) {
    TreflectObject source;
    unsigned int cc = 0;
    unsigned int mc = 0;
    TipprmiSequence<TipprmiAny, 0u> arguments;
    // Reading the source may look for it, and the observer be destroyed meanwhile.
    Life const life(*this);
    in >> source >> cc >> mc >> arguments;
    if (in.hasUnmarshallingFailed())
        in.printUnmarshallError(kClassId, kNotify);
    bool alive = false;
    bool const answer = !life.ended() && getClient()->notify(source, cc, mc, arguments, alive);
    if (life.ended())
        out << TipprmiExceptionContainer();
    else
        prepareResponseStream_(out);
    out << answer << alive;
}

// ---- TreflectObserver --------------------------------------------------------------------------

TreflectObserver::TreflectObserver()
    : TreflectObserver(TipprmiOID(static_cast<char const*>(nullptr), NSID_UNIT), nullptr,
                       "observer") {}

TreflectObserver::TreflectObserver(TipprmiOID const& oid, TreflectObject const* parent,
                                   std::string const& name)
    : TreflectObserverSkeleton(oid, parent, name) {}

// Brokers have it in their lists until it is told otherwise.
TreflectObserver::~TreflectObserver() {
    if (BrokerLifecycle::instance().isAbandoned())
        return;
    WithPermission const permission;
    ClassRecords::forgetEverywhere(*this);
}

bool TreflectObserver::notify(TreflectObject const& source, unsigned int const&,
                              unsigned int const&, TipprmiSequence<TipprmiAny, 0u> const& arguments,
                              bool& alive) {
    alive = true;
    setSource(&source);
    notified_ = true;
    arguments_ = arguments;
    return update();
}

TreflectObject const* TreflectObserver::getSource() const {
    return source_;
}

void TreflectObserver::setSource(TreflectObject const* source) {
    source_ = source;
}
