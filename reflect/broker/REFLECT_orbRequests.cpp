// Sending requests and waiting for their responses.
#include <optional>
#include <utility>

#include "handler_threads/TreflectReleaseHandlerState.h"
#include "handler_threads/WithPermission.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiResult.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "oswrap/Thread.h"
#include "oswrap/UniqueIdGen.h"
#include "reflect/TreflectDeadline.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/CallHeader.h"
#include "reflect/broker/OngoingRequest.h"
#include "reflect/broker/ReceivingScope.h"
#include "reflect/broker/TreflectOrbParts.h"
#include "reflect/broker/forwardMsgCleanup.h"
#include "transport/TransportLayer.h"

namespace {

char const* trueOrFalse(bool value) {
    return value ? "true" : "false";
}

/** Calls and queries have that of their thread; subscriptions and notices reach everybody, however
 * long it takes. */
long long deadlineOf(TreflectMessage const& message) {
    switch (message.type()) {
        case TreflectMessage::tPayload:
        case TreflectMessage::tResolve:
        case TreflectMessage::tPerfCounters:
            return TreflectDeadline::endOfThread();
        default:
            return TreflectDeadline::kNever;
    }
}

}  // namespace

/** One call on its way out, from the choice of its transaction id to its result. Lives on the
 * caller's stack. */
class TreflectORB::OutgoingCall {
public:
    OutgoingCall(TreflectORB const& orb, Transport::TerminationId target, bool withResponse,
                 TreflectMessage& message, TipprmiStream& response, GiveWay when,
                 long long deadline)
        : orb_(orb),
          target_(target),
          withResponse_(withResponse),
          when_(when),
          deadline_(deadline),
          message_(message),
          response_(response),
          record_(OngoingRequest::getThreadInstance()) {}

    /** True on success; else the response holds an exception container. */
    bool perform();

private:
    void giveWay(std::optional<TreflectReleaseHandlerState>& released);
    bool chooseId();
    void reportReceivingThread() const;
    int send();
    bool awaitResponse();
    void reportAborted(bool disconnected, bool targetExists) const;
    void reportSentBack() const;
    /** Whether the transport has taken the request: then its target was there. */
    enum class Handover { NotYet, Done };
    bool refused();
    bool failed(Handover handover, int code);
    void forgetGoneTarget(Handover handover);

    TreflectORB const& orb_;
    Transport::TerminationId const target_;
    bool const withResponse_;
    GiveWay const when_;
    long long const deadline_;
    TreflectMessage& message_;
    TipprmiStream& response_;
    OngoingRequest& record_;
    Transport::AnswerWait answers_;
    OngoingRequestId id_;
    bool thenPermission_ = false;  // given up for the call, to be taken again after it
};

bool TreflectORB::OutgoingCall::perform() {
    std::optional<TreflectReleaseHandlerState> released;
    if (when_ == GiveWay::BeforeIssuing)
        giveWay(released);
    forwardMsgCleanup const cleanup(id_, withResponse_, message_, &record_, &orb_);
    if (!chooseId()) {
        if (when_ == GiveWay::AfterIssuing)
            giveWay(released);
        return failed(Handover::NotYet, 0);
    }
    message_.kind(withResponse_ ? TreflectMessage::kRequest : TreflectMessage::kMsg);
    int const issued = id_.stage == OngoingRequestId::Stage::None ? 0 : send();
    if (when_ == GiveWay::AfterIssuing)
        giveWay(released);
    if (issued != 1) {
        REFLECTORB_LOG_LIMITED(orb_.parts_->limits.notFound, 3, "REFLECT_orb",
                               "ORB 0x%08X could not find destination termId=0x%08X for "
                               "transactionId %X",
                               orb_.termId().value(), target_.value(), message_.transactionId());
        return failed(Handover::NotYet, issued);
    }
    if (id_.stage == OngoingRequestId::Stage::Entered)
        return awaitResponse();
    if (withResponse_)
        REFLECTORB_LOG(3, "REFLECT_orb", "receivingThread called forwardMessage");
    return true;
}

/** For the rest of the call. */
void TreflectORB::OutgoingCall::giveWay(std::optional<TreflectReleaseHandlerState>& released) {
    released.emplace();
    thenPermission_ = released->released() && !hasRunPermission();
}

/** False when all ids are outstanding. A broker that is being deleted gives no id and is sent
 * nothing. */
bool TreflectORB::OutgoingCall::chooseId() {
    bool const receiving = ReceivingScope::isReceiving(orb_);
    bool const enter = withResponse_ && !receiving;
    RequestTable::Ticket const ticket =
        orb_.parts_->ongoingRequests_.begin(record_, target_, enter, &message_);
    switch (ticket.beginning) {
        case RequestTable::Beginning::Exhausted:
            REFLECTORB_LOG(3, "REFLECT_orb", "ORB could NOT generate unique request id 0x%08X",
                           ticket.id);
            return false;
        case RequestTable::Beginning::Closed:
            return true;
        case RequestTable::Beginning::Begun:
            break;
    }
    id_.value = ticket.id;
    id_.stage = enter ? OngoingRequestId::Stage::Entered : OngoingRequestId::Stage::Chosen;
    message_.transactionId(ticket.id);
    if (enter)
        orb_.letAnswer_(target_);
    if (receiving)
        reportReceivingThread();
    return true;
}

void TreflectORB::OutgoingCall::reportReceivingThread() const {
    if (withResponse_)
        REFLECTORB_LOG(3, "REFLECT_orb", "ORB did NOT add tID %X transaction to ongoingRequests_",
                       id_.value);
    else
        REFLECTORB_LOG(3, "REFLECT_orb", "ORB receiving thread = %lu found in forwardMsg()",
                       OSWrap::Thread::getCurrentId());
}

int TreflectORB::OutgoingCall::send() {
    OSWrap::DisableCancelStateGuard const noCancel;
    message_.addressed().originator(orb_.termId());
    int const issued = id_.stage == OngoingRequestId::Stage::Entered
                           ? answers_.issue(message_.addressed(), target_)
                           : orb_.issueTo_(target_, message_);
    id_.issued = issued == 1;
    return issued;
}

bool TreflectORB::OutgoingCall::awaitResponse() {
    OngoingRequest::Wait wait{message_, orb_, withResponse_, &answers_, thenPermission_, deadline_};
    TreflectMessage* const answer = record_.wait(wait);
    if (wait.timedOut)
        return failed(Handover::Done, static_cast<int>(TipprmiFailure::kTimedOut));
    bool const disconnected = answer == OngoingRequest::disconnected();
    if (!answer || disconnected) {
        reportAborted(disconnected, wait.targetExists);
        return refused();
    }
    if (answer->kind() == TreflectMessage::kNoDestination) {
        reportSentBack();
        return refused();
    }
    response_ = TipprmiStream(*answer, false);
    return true;
}

void TreflectORB::OutgoingCall::reportAborted(bool disconnected, bool targetExists) const {
    unsigned long heldBack = 0;
    if (!Logging::enabled(3) || !orb_.parts_->limits.aborted.pass(heldBack))
        return;
    REFLECTORB_LOG(3, "REFLECT_orb",
                   "ORB 0x%08X request to target 0x%08X aborted (Detection Rem.Disc.=%s, "
                   "TargetGone=%s)",
                   orb_.termId().value(), target_.value(), trueOrFalse(disconnected),
                   trueOrFalse(!targetExists));
    orb_.testInfoAboutMessage(target_, message_, withResponse_);
    Logging::tellHeldBack(heldBack, 3, __LINE__, "REFLECT_orb");
}

void TreflectORB::OutgoingCall::reportSentBack() const {
    unsigned long heldBack = 0;
    if (!Logging::enabled(3) || !orb_.parts_->limits.sentBack.pass(heldBack))
        return;
    REFLECTORB_LOG(3, "REFLECT_orb", "ORB 0x%08X receives TRANSPORT_ERROR message of termId 0x%08X",
                   orb_.termId().value(), target_.value());
    orb_.testInfoAboutMessage(target_, message_, withResponse_);
    Logging::tellHeldBack(heldBack, 3, __LINE__, "REFLECT_orb");
}

/** Lets the transport see first whether the target is dying. */
bool TreflectORB::OutgoingCall::refused() {
    {
        TreflectReleaseHandlerState const released;
        Transport::TransportLayer::instance().stillExists(target_);
    }
    return failed(Handover::Done, 0);
}

bool TreflectORB::OutgoingCall::failed(Handover handover, int code) {
    writeGeneralException(response_, static_cast<unsigned int>(code));
    WithPermission const permission;
    ++orb_.parts_->counters.of(target_).failed;
    forgetGoneTarget(handover);
    return false;
}

/** Its departure may be told only after the call has failed. Who sees the failure is to find the
 * handle invalid already, and no connection that fails again. One that the transport does not know
 * and that was never there may still come. */
void TreflectORB::OutgoingCall::forgetGoneTarget(Handover handover) {
    bool const gone = !exists(target_) &&
                      (orb_.parts_->presentOrbs.remove(target_) || handover == Handover::Done);
    TreflectObjectHandler* const handler = gone ? TreflectObjectHandler::getInstance() : nullptr;
    if (handler)
        handler->invalidateStubs(orb_.convertId(target_));
}

bool TreflectORB::forwardMsg(TreflectOrbId const& target, bool withResponse, TipprmiStream& request,
                             TipprmiStream& response) {
    if (request.getDataSize() < static_cast<int>(callheader::kSize))
        REFLECTORB_LOG(3, "REFLECT_orb",
                       "ORB 0x%08X forwardMsg message too short (iptr_=%d,size=%d)",
                       termId().value(), request.getDataSize(), request.getDataLimit());
    if (request.hasMarshallingFailed()) {
        REFLECTORB_LOG(3, "REFLECT_orb",
                       "ORB 0x%08X forwardMsg message incomplete, not sent (iptr_=%d,size=%d)",
                       termId().value(), request.getDataSize(), request.getDataLimit());
        writeGeneralException(response, 0);
        // A failed call like any other.
        CallGate::Visit const visit(parts_->calls);
        if (!visit.admitted())
            return false;
        WithPermission const permission;
        parts_->counters.addUnsent(convertId(target));
        return false;
    }
    request.msg().type(TreflectMessage::tPayload);
    return forwardMsg_(convertId(target), withResponse, request.msg(), response);
}

bool TreflectORB::forwardMsg_(Transport::TerminationId target, bool withResponse,
                              TreflectMessage& message, TipprmiStream& response) const {
    return forward_(target, withResponse, message, response, GiveWay::BeforeIssuing);
}

bool TreflectORB::forward_(Transport::TerminationId target, bool withResponse,
                           TreflectMessage& message, TipprmiStream& response, GiveWay when) const {
    OSWrap::DeferredCancelTypeGuard const deferred;
    CallGate::Visit const visit(parts_->calls);
    if (!visit.admitted())
        return turnAway_(target, message, response);
    long long const deadline = withResponse ? deadlineOf(message) : TreflectDeadline::kNever;
    if (deadline != TreflectDeadline::kNever && deadline <= OSWrap::Clock::nowNanoseconds()) {
        writeGeneralException(response, TipprmiFailure::kTimedOut);
        {
            WithPermission const permission;
            parts_->counters.addUnsent(target);
        }
        // The others have their turn, as in every call: it may be made again and again.
        TreflectReleaseHandlerState const released;
        return false;
    }
    {
        WithPermission const permission;
        ++parts_->counters.of(target).sent;
    }
    return OutgoingCall(*this, target, withResponse, message, response, when, deadline).perform();
}

/**
 * The broker is being deleted, or has been: a call that comes only now ends as one that cannot be
 * sent, without the deletion having to wait for it. Counters need the permission and nobody can ask
 * for them any more, so it is not counted. One that holds the permission lets the others have their
 * turn, as in every call: it may try again and again until there is a new broker.
 */
bool TreflectORB::turnAway_(Transport::TerminationId target, TreflectMessage const& message,
                            TipprmiStream& response) const {
    TreflectReleaseHandlerState const released;
    REFLECTORB_LOG_LIMITED(parts_->turnedAway, 3, "REFLECT_orb",
                           "ORB 0x%08X could not find destination termId=0x%08X for transactionId "
                           "%X",
                           termId().value(), target.value(), message.transactionId());
    writeGeneralException(response, 0);
    return false;
}

int TreflectORB::issueTo_(Transport::TerminationId target, TreflectMessage& message) const {
    // A message that grew may have been allocated by another broker of this process.
    message.addressed().originator(termId());
    return Transport::TransportLayer::instance().getTermination(target).issue(message.addressed());
}

int TreflectORB::issueAnswer_(Transport::TerminationId target, TreflectMessage& message) const {
    message.addressed().originator(termId());
    return Transport::TransportLayer::instance().getTermination(target).issueAnswer(
        message.addressed());
}

void TreflectORB::waitingTooLongFor(Transport::TerminationId const& target, TreflectMessage request,
                                    int minutes) const {
    OSWrap::DisableCancelStateGuard const noCancel;
    request.transactionId(OSWrap::UniqueIdGen::instance().getId());
    request.kind(TreflectMessage::kResponseFailure);
    bool const sent = issueTo_(target, request) == 1;
    REFLECTORB_LOG(3, "REFLECT_orb",
                   "ORB Ox%08X is waiting since %d minutes for 0x%08X, now sending response "
                   "failure message %s",
                   termId().value(), minutes, target.value(), sent ? "succeeded" : "failed");
    OSWrap::Thread::sleep(0, 200'000'000);
    REFLECTORB_LOG(0, "REFLECT_orb",
                   "ORB Ox%08X is waiting since %d minutes for 0x%08X, now triggering an abort()",
                   termId().value(), minutes, target.value());
    resetUnit();
}

/** First phase of the broker's deletion: nothing more is sent, and nobody waits any longer. */
void TreflectORB::closeCalls_() {
    parts_->calls.close();
    for (RequestTable::Entry const& entry : parts_->ongoingRequests_.close())
        entry.record->reset(OngoingRequest::disconnected(), entry.target);
}

forwardMsgCleanup::forwardMsgCleanup(TreflectORB::OngoingRequestId& id, bool responseAwaited,
                                     TreflectMessage& request, OngoingRequest* record,
                                     TreflectORB const* orb)
    : id_(id), responseAwaited_(responseAwaited), request_(request), record_(record), orb_(orb) {}

forwardMsgCleanup::~forwardMsgCleanup() {
    OSWrap::DisableCancelStateGuard const noCancel;
    auto const answer =
        id_.issued ? RequestTable::Answer::MayCome : RequestTable::Answer::CannotCome;
    // What has been delivered was taken out of the table before.
    if (id_.stage == TreflectORB::OngoingRequestId::Stage::Entered && !record_->delivered() &&
        !orb_->parts_->ongoingRequests_.withdraw(id_.value, *record_, answer)) {
        bool targetExists = true;
        record_->wait(true, responseAwaited_, targetExists, request_, orb_);
    }
    record_->free();
}
