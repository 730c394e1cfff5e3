#include "reflect/broker/IncomingMessage.h"

#include <pthread.h>

#include "handler_threads/TreflectRestoreHandlerState.h"
#include "handler_threads/WithPermission.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiObjectSkeleton.h"
#include "logging/LineLimit.h"
#include "oswrap/OutOfMemory.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/broker/AllLevelsReleased.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/CallbackScope.h"
#include "reflect/broker/ContainErrors.h"
#include "reflect/notices/ObjectPlace.h"
#include "reflect/objects/ServedCall.h"

namespace {

char const* trueOrFalse(bool value) {
    return value ? "true" : "false";
}

/** Lets cancellation in for a scope: workers run with it disabled but for the application's code.
 */
class EnableCancelState {
public:
    EnableCancelState() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous_); }
    ~EnableCancelState() { pthread_setcancelstate(previous_, nullptr); }
    EnableCancelState(EnableCancelState const&) = delete;
    EnableCancelState& operator=(EnableCancelState const&) = delete;

private:
    int previous_ = PTHREAD_CANCEL_DISABLE;
};

/** All classes that this process knows, whether it has objects of them or not. */
TipprmiSequence<unsigned int, 0u> knownClasses() {
    TipprmiSequence<unsigned int, 0u> ids;
    for (unsigned int const id : InterfaceRepository::instance()->getIfIds())
        ids.push_back(id);
    return ids;
}

}  // namespace

void TreflectORB::IncomingMessage::serve() {
    switch (message_.type()) {
        case TreflectMessage::tResolve:
            serveResolve();
            break;
        case TreflectMessage::tPayload:
            serveCall();
            break;
        case TreflectMessage::tOCN:
            serveNotice(NoticeKind::Creation);
            break;
        case TreflectMessage::tODN:
            serveNotice(NoticeKind::Deletion);
            break;
        case TreflectMessage::tOCNSubscribe:
            serveSubscription(NoticeKind::Creation);
            break;
        case TreflectMessage::tODNSubscribe:
            serveSubscription(NoticeKind::Deletion);
            break;
        case TreflectMessage::tOCNUnsubscribe:
        case TreflectMessage::tODNUnsubscribe:
            serveCancellation();
            break;
        case TreflectMessage::tPerfCounters:
            serveCounterQuery();
            break;
        case TreflectMessage::tOrbAppeared:
            if (message_.originator() == orb_.termId()) {
                serveArrival();
                break;
            }
            [[fallthrough]];
        default:
            REFLECTORB_LOG_LIMITED(limits().unknownType, 3, "REFLECT_orb",
                                   "ORB 0x%08X received request of unknown type (rorg=%X, rdes=%X)",
                                   orb_.termId().value(), message_.originator().value(),
                                   message_.destination().value());
    }
}

void TreflectORB::IncomingMessage::serveResolve() {
    TipprmiStream response(orb_.allocateResponse(message_, Parts::kResponseSize), true);
    TipprmiOID oid(static_cast<char const*>(nullptr), orb_.namespace_);
    request_ >> oid;
    response << orb_.locateLocalObject_(oid).getInternalOID();
    if (bool const sent = send(response); !sent)
        REFLECTORB_LOG_LIMITED(limits().notResolved, 3, "REFLECT_orb",
                               "Sending resolve response message failed rc=%d",
                               static_cast<int>(sent));
}

void TreflectORB::IncomingMessage::serveNotice(NoticeKind kind) {
    unsigned int classId = 0;
    TreflectObject object;
    request_ >> classId >> object;
    TipprmiStream response(orb_.allocateResponse(message_, Parts::kResponseSize), true);
    bool const readable = isReadable(classId) && isOfSender(object, classId);
    if (readable && kind == NoticeKind::Creation) {
        classes().gotElsewhere(classId, object, message_.originator(), note_, [&] {
            handlerthreads::assertPermission();
            answer(response);
        });
        return;
    }
    if (readable)
        classes().got(kind, classId, object);
    answer(response);
}

void TreflectORB::IncomingMessage::serveSubscription(NoticeKind kind) {
    unsigned int classId = 0;
    bool plusExisting = false;
    request_ >> classId;
    if (kind == NoticeKind::Creation)
        request_ >> plusExisting;
    TipprmiStream response(orb_.allocateResponse(message_, Parts::kResponseSize), true);
    TipprmiSequence<TreflectObject, 0u> existing;
    // Of one that has gone meanwhile nobody would take it away again.
    if (isReadable(classId) && exists(message_.originator()))
        classes().addSubscriber(kind, classId, orb_.convertId(message_.originator()),
                                plusExisting ? &existing : nullptr);
    if (kind == NoticeKind::Creation)
        response << existing;
    response << knownClasses();
    answer(response);
}

void TreflectORB::IncomingMessage::serveCancellation() {
    unsigned int classId = 0;
    request_ >> classId;
    TipprmiStream response(orb_.allocateResponse(message_, Parts::kResponseSize), true);
    if (isReadable(classId))
        classes().removeSubscriber(classId, orb_.convertId(message_.originator()));
    answer(response);
}

void TreflectORB::IncomingMessage::serveCounterQuery() {
    TipprmiStream response(orb_.allocateResponse(message_, Parts::kResponseSize), true);
    PerfCntInfo const info = orb_.takePerfCnts_();
    response << info.actor << info.counters;
    answer(response);
}

/** What this broker has queued for itself, since the newcomer may take its time to answer. */
void TreflectORB::IncomingMessage::serveArrival() {
    unsigned int newcomer = 0;
    request_ >> newcomer;
    orb_.catchUpWith_(Transport::TerminationId(newcomer));
    orb_.caughtUpWith_(Transport::TerminationId(newcomer));
}

/** Whether a message about a class was complete; one that was not is answered and ignored. */
bool TreflectORB::IncomingMessage::isReadable(unsigned int classId) const {
    unsigned long heldBack = 0;
    if (request_.hasUnmarshallingFailed() && limits().unreadable.pass(heldBack)) {
        request_.printUnmarshallError(classId, message_.type());
        Logging::tellHeldBack(heldBack, 4, __LINE__, "CallHelper");
    }
    return !request_.hasUnmarshallingFailed();
}

/** Whether an object that is told of is one of the teller, or of nobody who is there: of others
 * only they themselves know when they come and go. */
bool TreflectORB::IncomingMessage::isOfSender(TreflectObject const& object,
                                              unsigned int classId) const {
    TreflectOrbId const home = brokerOf(object);
    if (home == orb_.convertId(message_.originator()) || !exists(orb_.convertId(home)))
        return true;
    REFLECTORB_LOG_LIMITED(limits().forgedNotice, 3, "REFLECT_orb",
                           "ORB 0x%08X drops notice of 0x%08X about an object of ORB 0x%08X "
                           "(cc=0x%X)",
                           orb_.termId().value(), message_.originator().value(), home.value(),
                           classId);
    return false;
}

void TreflectORB::IncomingMessage::answer(TipprmiStream& response) {
    if (bool const sent = send(response); !sent)
        REFLECTORB_LOG_LIMITED(limits().notAnswered, 3, "REFLECT_orb",
                               "Sending response message failed rc=%d", static_cast<int>(sent));
}

void TreflectORB::IncomingMessage::serveCall() {
    request_ >> ioid_ >> transaction_ >> cc_ >> mc_;
    TipprmiStream response =
        transaction_ ? TipprmiStream(orb_.allocateResponse(message_, Parts::kResponseSize), true)
                     : TipprmiStream::withoutBuffer_();  // nobody waits for what is written to it
    bool served = false;
    if (TipprmiObjectSkeleton* const object = orb_.parts_->objects.find(ioid_))
        served = callObject(*object, response);
    else
        reportUnknownObject();
    answerCall(response, served);
}

/** Calls the object and puts this thread's state right again, whatever the call did to it. */
bool TreflectORB::IncomingMessage::callObject(TipprmiObjectSkeleton& object,
                                              TipprmiStream& response) {
    bool served = false;
    try {
        TreflectRestoreHandlerState const restore;
        served = callUnguarded(object, response);
    } catch (...) {
        // Only the end of this thread comes through here; its caller must not wait for ever.
        answerCall(response, false);
        throw;
    }
    giveBackLevelsBeyond(1);
    // A response that did not get all that was written to it is of no use.
    return served && !response.hasMarshallingFailed();
}

bool TreflectORB::IncomingMessage::callUnguarded(TipprmiObjectSkeleton& object,
                                                 TipprmiStream& response) {
    EnableCancelState const cancellable;
    bool served = false;
    ServedCall call(message_.originator(), object.reflective());
    containErrors(
        [&] {
            auto const mc = static_cast<unsigned int>(mc_);
            served = object.dispatch(transaction_, cc_, mc, request_, response);
            if (served && !response.hasMarshallingFailed())
                call.tellOutcome(transaction_ ? &response : nullptr);
        },
        [&](char const* thrown) {
            REFLECTORB_LOG_LIMITED(limits().thrown, 3, "REFLECT_orb",
                                   "ORB 0x%08X ioid=0x%X,classCode=0x%X,methodCode=%d threw%s",
                                   orb_.termId().value(), ioid_, cc_, mc_, thrown);
        });
    return served;
}

void TreflectORB::IncomingMessage::answerCall(TipprmiStream& response, bool served) {
    if (!served)
        REFLECTORB_LOG_LIMITED(limits().notServed, 3, "REFLECT_orb",
                               "Handling request message failed rc=%d", static_cast<int>(served));
    if (!transaction_)
        return;
    if (!served) {
        response.clear();
        writeGeneralException(response, 0);
    }
    answer(response);
}

/** Somebody waits for an answer: if there is no memory or no room for this one, they get one that
 * is small and at hand. */
bool TreflectORB::IncomingMessage::send(TipprmiStream& response) {
    Transport::TerminationId const asker = message_.originator();
    bool const noMemory = response.msg().addressed().empty();
    if (!noMemory && orb_.issueAnswer_(asker, asAnswer(response.msg())) == 1)
        return true;
    bool const failureSent = orb_.issueAnswer_(asker, asAnswer(failureInReserve())) == 1;
    return noMemory && failureSent;
}

/** The run permission guards the messages in reserve until they have been issued. */
TreflectMessage& TreflectORB::IncomingMessage::failureInReserve() {
    bool const call = message_.type() == TreflectMessage::tPayload;
    return call ? orb_.parts_->reserve.failedCall : orb_.parts_->reserve.nothing;
}

/** One that could only be allocated at a second attempt has no header yet. */
TreflectMessage& TreflectORB::IncomingMessage::asAnswer(TreflectMessage& message) const {
    message.transactionId(message_.transactionId());
    message.type(message_.type());
    message.kind(TreflectMessage::kResponse);
    return message;
}

/**
 * A request is answered with a failure. That needs memory only where there is no channel any more,
 * and waits for it as long as it takes: without an answer its sender would wait for ever, and
 * nobody else would tell of an arrival. Only this worker waits, without the run permission.
 */
void TreflectORB::IncomingMessage::makeUpFor() {
    auto const attempt = [this] {
        handlerthreads::assertPermission();
        makeUpForOnce();
    };
    while (!OSWrap::withMemory(attempt)) {
        AllLevelsReleased const released;
        OSWrap::awaitMemory();
    }
}

void TreflectORB::IncomingMessage::makeUpForOnce() {
    bool const arrival =
        message_.type() == TreflectMessage::tOrbAppeared && message_.originator() == orb_.termId();
    if (arrival)
        IncomingMessage(orb_, message_, note_).serve();  // each attempt reads from the beginning
    else if (message_.kind() == TreflectMessage::kRequest)
        orb_.issueAnswer_(message_.originator(), asAnswer(failureInReserve()));
}

void TreflectORB::IncomingMessage::reportUnknownObject() const {
    REFLECTORB_LOG_LIMITED(limits().unknownObject, 3, "REFLECT_orb",
                           "ioid=0x%X,transaction=%s,classCode=0x%X,methodCode=%d", ioid_,
                           trueOrFalse(transaction_), cc_, mc_);
}
