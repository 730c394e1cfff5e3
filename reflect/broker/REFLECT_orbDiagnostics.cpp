// What a broker logs and answers about messages, its traffic and its state, and the reset of the
// unit.
#include <sys/wait.h>

#include <cstdlib>
#include <utility>

#include "handler_threads/HandlerThreads.h"
#include "handler_threads/WithPermission.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Memory.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/ScriptRunner.h"
#include "reflect/broker/TreflectOrbParts.h"
#include "transport/IdInfo.h"

namespace {

constexpr char const* kLogCollectionScript = "/opt/vdk/bin/QMB_FCT_logs.sh";

char const* trueOrFalse(bool value) {
    return value ? "true" : "false";
}

void describeCall(TipprmiStream& data) {
    unsigned int ioid = 0;
    bool transaction = false;
    unsigned int cc = 0;
    int mc = 0;
    data >> ioid >> transaction >> cc >> mc;
    REFLECTORB_LOG(5, "REFLECT_orb", "    Message data: ioid=0x%X,transaction=%s,cc=0x%X,mc=%d",
                   ioid, trueOrFalse(transaction), cc, mc);
}

void describeResolve(TipprmiStream& data) {
    TipprmiOID oid(static_cast<char const*>(nullptr), NSID_UNDEF);
    data >> oid;
    char const* const name = oid.getIdString();
    REFLECTORB_LOG(5, "REFLECT_orb", "    Message data: oid=%s", name ? name : "unnamed");
}

void describeClass(TipprmiStream& data) {
    unsigned int cc = 0;
    data >> cc;
    REFLECTORB_LOG(5, "REFLECT_orb", "    Message data: cc=0x%X", cc);
}

void describeSubscription(TipprmiStream& data) {
    unsigned int cc = 0;
    bool plusExisting = false;
    data >> cc >> plusExisting;
    REFLECTORB_LOG(5, "REFLECT_orb", "    Message data: cc=0x%X, plusExisting=%s", cc,
                   trueOrFalse(plusExisting));
}

void describeAppearance(TipprmiStream& data) {
    Transport::TerminationId id;
    data >> id;
    REFLECTORB_LOG(5, "REFLECT_orb", "    Message data: termId=%X", id.value());
}

}  // namespace

void TreflectORB::testInfoAboutMessage(Transport::TerminationId const&,
                                       TreflectMessage const& message, bool output) const {
    message.testValidation(TreflectMessage::kUndef, 0, "", output, 0);
    if (!output)
        return;
    TipprmiStream data(message, false);
    switch (message.type()) {
        case TreflectMessage::tPayload:
            return describeCall(data);
        case TreflectMessage::tResolve:
            return describeResolve(data);
        case TreflectMessage::tOCNSubscribe:
            return describeSubscription(data);
        case TreflectMessage::tOCN:
        case TreflectMessage::tODN:
        case TreflectMessage::tODNSubscribe:
        case TreflectMessage::tOCNUnsubscribe:
        case TreflectMessage::tODNUnsubscribe:
            return describeClass(data);
        case TreflectMessage::tOrbAppeared:
            return describeAppearance(data);
        default:
            REFLECTORB_LOG(5, "REFLECT_orb", "    Message data: unknown message");
    }
}

// ---- Counters -----------------------------------------------------------------------------------

TipprmiStream& operator<<(TipprmiStream& stream, TreflectORB::PerfCnts const& counters) {
    return stream << counters.termination << counters.sent << counters.failed;
}

TipprmiStream& operator>>(TipprmiStream& stream, TreflectORB::PerfCnts& counters) {
    return stream >> counters.termination >> counters.sent >> counters.failed;
}

TreflectORB::PerfCntInfo TreflectORB::takePerfCnts_() const {
    parts_->returnedCalls.moveTo(parts_->counters);
    return {Transport::IdInfo::instance().getActor(), parts_->counters.take()};
}

bool TreflectORB::queryPerfCnts_(Transport::TerminationId const& target, PerfCntInfo& info) const {
    info = {};
    BrokerRequest request(*this, TreflectMessage::tPerfCounters);
    if (!request.send(target))
        return false;
    PerfCntInfo answer;
    request.response() >> answer.actor >> answer.counters;
    if (request.response().hasUnmarshallingFailed())
        return false;
    info = std::move(answer);
    return true;
}

TreflectORB::PerfCntInfo TreflectORB::getPerfCnts(Transport::TerminationId const& target) const {
    PerfCntInfo info;
    queryPerfCnts_(target, info);
    return info;
}

std::list<TreflectORB::PerfCntMultInfo> TreflectORB::getPerfCnts() const {
    std::list<PerfCntMultInfo> infos;
    for (Transport::TerminationId const& member : membersOfGroup(*this)) {
        if (member != termId())
            infos.emplace_back(member, getPerfCnts(member));
    }
    return infos;
}

std::list<TreflectORB::BrokerInfo> TreflectORB::getBrokers() const {
    BrokerInfo own{termId(), orbId_, true, {}};
    {
        WithPermission const permission;
        own.info = takePerfCnts_();
    }
    std::list<BrokerInfo> brokers;
    for (Transport::TerminationId const& member : membersOfGroup(*this)) {
        if (member == termId()) {
            brokers.push_back(own);
            continue;
        }
        brokers.push_back({member, convertId(member), false, {}});
        brokers.back().answered = queryPerfCnts_(member, brokers.back().info);
    }
    return brokers;
}

// ---- The broker's state -------------------------------------------------------------------------

std::atomic<bool> TreflectORB::debug_{false};

// What needs no permission comes first: it is logged even when somebody keeps the permission.
void TreflectORB::display(int) const {
    REFLECTORB_LOG(5, "REFLECT_orb", "ORB display: actor %s, OrbId 0x%X, TermId 0x%08X",
                   Transport::IdInfo::instance().getActor().c_str(), orbId_.value(),
                   termId().value());
    REFLECTORB_LOG(5, "REFLECT_orb", "  number of handler threads: %d",
                   static_cast<int>(handlerThreads().size()));
    ClassRecords::Totals totals{};
    {
        WithPermission const permission;
        totals = parts_->classes.totals();
    }
    REFLECTORB_LOG(5, "REFLECT_orb", "  metaData: size=%lu, co=%d, do=%d, oi=%d, rco=%d, rdo=%d",
                   totals.records, totals.creationObservers, totals.deletionObservers,
                   totals.objects, totals.remoteCreationObservers, totals.remoteDeletionObservers);
    REFLECTORB_LOG(5, "REFLECT_orb", "  actor size: %ld", oscwGetActorSize());
    REFLECTORB_LOG(5, "REFLECT_orb", "  unit free: %ld", oscwGetUnitFreeMem());
    if (debug_)
        displayMore_();
}

void TreflectORB::displayMore_() const {
    PerformanceCounters::Records counters;
    {
        WithPermission const permission;
        parts_->returnedCalls.moveTo(parts_->counters);
        counters = parts_->counters.all();
    }
    for (unsigned int i = 0; i < counters.getLength(); ++i)
        REFLECTORB_LOG(5, "REFLECT_orb", "  destination 0x%08X: sent=%u, failed=%u",
                       counters[i].termination.value(), counters[i].sent, counters[i].failed);
    parts_->presence->display();
}

void TreflectORB::resetUnit() const {
    OSWrap::DisableCancelStateGuard const noCancel;
    REFLECTORB_LOG(3, "REFLECT_orb", "ORB 0x%08X requests UNIT RESET", termId().value());
    int const status = runScript(kLogCollectionScript);
    if (status != 0)
        REFLECTORB_LOG(3, "REFLECT_orb", "QMB_FCT log collection failed with status:%d",
                       WEXITSTATUS(status));
    else
        REFLECTORB_LOG(3, "REFLECT_orb", "QMB_FCT log collection script executed successfully");
    std::abort();
}
