// What a broker tells about messages, and the reset of the unit.
#include <sys/wait.h>

#include <cstdlib>

#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "reflect/ScriptRunner.h"
#include "reflect/TreflectORB.h"

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
