// What workers do: they take the messages that have been queued, one after the other, and serve
// them under the run permission.
#include <optional>

#include "handler_threads/PermissionWaiter.h"
#include "handler_threads/TreflectReleaseHandlerState.h"
#include "handler_threads/TreflectRestoreHandlerState.h"
#include "handler_threads/TurnExchange.h"
#include "handler_threads/WithPermission.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiObjectSkeleton.h"
#include "logging/LineLimit.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/OutOfMemory.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/broker/AllLevelsReleased.h"
#include "reflect/broker/ContainErrors.h"
#include "reflect/broker/TreflectOrbParts.h"
#include "transport/TransportLayer.h"

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

/** Gives back what the application's code took of the run permission beyond the one level that a
 * worker has. */
void giveBackFurtherLevels() {
    while (TreflectORB::hasRunPermission() && TreflectORB::getRunPermissionCount() > 1)
        TreflectORB::releaseRunPermission();
}

/** The message that a worker serves next, once it holds the run permission, and the worker's entry
 * for the permission's queue. Lives on the worker's thread. */
class WorkerTurn final : public TurnExchange, public MessageQueue::Taker {
public:
    explicit WorkerTurn(void const* pool) : TurnExchange(pool) { entry_.emplace(this); }
    void swap(TurnExchange& other) override {
        std::swap(taken, static_cast<WorkerTurn&>(other).taken);
    }
    void lineUp() override { mine_ = TreflectORB::handlerThreads().enterQueue(*entry_); }
    /** Whether lining up has given the worker the permission, or left it with it. */
    bool mine() const { return mine_; }
    /** Waits for the permission unless it is. */
    void await() {
        if (mine_)
            return;
        TreflectORB::handlerThreads().getPermission(*entry_);
        entry_.emplace(this);
    }

private:
    std::optional<handlerthreads::PermissionWaiter> entry_;  // serves for one wait
    bool mine_ = false;
};

/** Tells the queue at the end of a worker, by return or by cancellation. */
class EndOfWorker {
public:
    explicit EndOfWorker(MessageQueue& queue) : queue_(queue) {}
    ~EndOfWorker() { queue_.workerEnded(); }
    EndOfWorker(EndOfWorker const&) = delete;
    EndOfWorker& operator=(EndOfWorker const&) = delete;

private:
    MessageQueue& queue_;
};

/** All classes that this process knows, whether it has objects of them or not. */
TipprmiSequence<unsigned int, 0u> knownClasses() {
    TipprmiSequence<unsigned int, 0u> ids;
    for (unsigned int const id : InterfaceRepository::instance()->getIfIds())
        ids.push_back(id);
    return ids;
}

}  // namespace

/** A message that a worker serves, holding the run permission. */
class TreflectORB::IncomingMessage {
public:
    /** `note`: see `enqueue_`. */
    IncomingMessage(TreflectORB& orb, TreflectMessage const& message, unsigned int note)
        : orb_(orb), message_(message), note_(note), request_(message, false) {}

    void serve() OSW_REQUIRES_PERMISSION;
    /** Memory has run out in `serve`. */
    void makeUpFor() OSW_REQUIRES_PERMISSION;

private:
    void makeUpForOnce() OSW_REQUIRES_PERMISSION;
    void serveResolve() OSW_REQUIRES_PERMISSION;
    void serveCall() OSW_REQUIRES_PERMISSION;
    void serveNotice() OSW_REQUIRES_PERMISSION;
    void serveCreation(unsigned int classId, TreflectObject const& object,
                       TipprmiStream& response) OSW_REQUIRES_PERMISSION;
    void serveCreationSubscription() OSW_REQUIRES_PERMISSION;
    void serveDeletionSubscription() OSW_REQUIRES_PERMISSION;
    void serveCancellation() OSW_REQUIRES_PERMISSION;
    void serveCounterQuery() OSW_REQUIRES_PERMISSION;
    void serveArrival() OSW_REQUIRES_PERMISSION;
    bool isReadable(unsigned int classId) const;
    void answer(TipprmiStream& response) OSW_REQUIRES_PERMISSION;
    bool callObject(TipprmiObjectSkeleton& object, TipprmiStream& response) OSW_REQUIRES_PERMISSION;
    bool callUnguarded(TipprmiObjectSkeleton& object, TipprmiStream& response);
    void answerCall(TipprmiStream& response, bool served) OSW_REQUIRES_PERMISSION;
    bool send(TipprmiStream& response) OSW_REQUIRES_PERMISSION;
    TreflectMessage& failureInReserve() OSW_REQUIRES_PERMISSION;
    TreflectMessage& asAnswer(TreflectMessage& message) const;
    void reportUnknownObject() const;
    Parts::LineLimits& limits() const { return orb_.parts_->limits; }

    TreflectORB& orb_;
    TreflectMessage const message_;
    unsigned int const note_;
    TipprmiStream request_;

    // Header of a call
    unsigned int ioid_ = 0;
    bool transaction_ = false;  // a response is awaited
    unsigned int cc_ = 0;
    int mc_ = 0;
};

void TreflectORB::IncomingMessage::serve() {
    switch (message_.type()) {
        case TreflectMessage::tResolve:
            serveResolve();
            break;
        case TreflectMessage::tPayload:
            serveCall();
            break;
        case TreflectMessage::tOCN:
        case TreflectMessage::tODN:
            serveNotice();
            break;
        case TreflectMessage::tOCNSubscribe:
            serveCreationSubscription();
            break;
        case TreflectMessage::tODNSubscribe:
            serveDeletionSubscription();
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

void TreflectORB::IncomingMessage::serveNotice() {
    unsigned int classId = 0;
    TreflectObject object;
    request_ >> classId >> object;
    TipprmiStream response(orb_.allocateResponse(message_, Parts::kResponseSize), true);
    bool const readable = isReadable(classId);
    if (readable && message_.type() == TreflectMessage::tOCN) {
        serveCreation(classId, object, response);
        return;
    }
    if (readable)
        orb_.gotDeletion(classId, object);
    answer(response);
}

/** Only when the notice has been answered does its sender say whether the object is still there. */
void TreflectORB::IncomingMessage::serveCreation(unsigned int classId, TreflectObject const& object,
                                                 TipprmiStream& response) {
    auto const record = orb_.parts_->classes.find(classId);
    if (record == orb_.parts_->classes.end() ||
        !Transport::TransportLayer::instance().exists(message_.originator())) {
        answer(response);
        return;
    }
    Registration telling(orb_, record->second, Kind::Creation, nullptr, note_);
    orb_.gotCreation(classId, object);
    answer(response);
    orb_.tellOfMissedDeletions_(classId, telling);
}

void TreflectORB::IncomingMessage::serveCreationSubscription() {
    unsigned int classId = 0;
    bool plusExisting = false;
    request_ >> classId >> plusExisting;
    TipprmiStream response(orb_.allocateResponse(message_, Parts::kResponseSize), true);
    TipprmiSequence<TreflectObject, 0u> existing;
    if (isReadable(classId))
        orb_.addRemoteCreationObserver(classId, orb_.convertId(message_.originator()),
                                       plusExisting ? &existing : nullptr);
    response << existing << knownClasses();
    answer(response);
}

void TreflectORB::IncomingMessage::serveDeletionSubscription() {
    unsigned int classId = 0;
    request_ >> classId;
    TipprmiStream response(orb_.allocateResponse(message_, Parts::kResponseSize), true);
    if (isReadable(classId))
        orb_.addRemoteDeletionObserver(classId, orb_.convertId(message_.originator()));
    response << knownClasses();
    answer(response);
}

void TreflectORB::IncomingMessage::serveCancellation() {
    unsigned int classId = 0;
    request_ >> classId;
    TipprmiStream response(orb_.allocateResponse(message_, Parts::kResponseSize), true);
    if (isReadable(classId))
        orb_.removeRemoteObserver(classId, orb_.convertId(message_.originator()));
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

void TreflectORB::IncomingMessage::answer(TipprmiStream& response) {
    if (bool const sent = send(response); !sent)
        REFLECTORB_LOG_LIMITED(limits().notAnswered, 3, "REFLECT_orb",
                               "Sending response message failed rc=%d", static_cast<int>(sent));
}

void TreflectORB::IncomingMessage::serveCall() {
    request_ >> ioid_ >> transaction_ >> cc_ >> mc_;
    TipprmiStream response(orb_.allocateResponse(message_, Parts::kResponseSize), true);
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
    giveBackFurtherLevels();
    // A response that did not get all that was written to it is of no use.
    return served && !response.hasMarshallingFailed();
}

bool TreflectORB::IncomingMessage::callUnguarded(TipprmiObjectSkeleton& object,
                                                 TipprmiStream& response) {
    EnableCancelState const cancellable;
    bool served = false;
    containErrors(
        [&] {
            auto const mc = static_cast<unsigned int>(mc_);
            served = object.dispatch(transaction_, cc_, mc, request_, response);
        },
        [&](char const* thrown) {
            REFLECTORB_LOG_LIMITED(limits().thrown, 3, "REFLECT_orb",
                                   "ORB 0x%08X ioid=0x%X,classCode=0x%X,methodCode=%d threw%s",
                                   orb_.termId().value(), ioid_, cc_, mc_, thrown);
        });
    return served;
}

void TreflectORB::IncomingMessage::answerCall(TipprmiStream& response, bool served) {
    if (!served) {
        REFLECTORB_LOG_LIMITED(limits().notServed, 3, "REFLECT_orb",
                               "Handling request message failed rc=%d", static_cast<int>(served));
        response.clear();
        writeGeneralException(response, 0);
    }
    if (!transaction_)
        return;
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
        serve();
    else if (message_.kind() == TreflectMessage::kRequest)
        orb_.issueAnswer_(message_.originator(), asAnswer(failureInReserve()));
}

void TreflectORB::IncomingMessage::reportUnknownObject() const {
    REFLECTORB_LOG_LIMITED(limits().unknownObject, 3, "REFLECT_orb",
                           "ioid=0x%X,transaction=%s,classCode=0x%X,methodCode=%d", ioid_,
                           trueOrFalse(transaction_), cc_, mc_);
}

/** A worker's way from message to message. */
class TreflectORB::WorkLoop {
public:
    explicit WorkLoop(TreflectORB& orb) : orb_(orb), turn_(orb.parts_.get()) {}

    void run() OSW_REQUIRES_PERMISSION {
        for (bool found = awaitTurn(true); found; found = goOnAtOnce() || awaitTurn(false)) {
            serve();
            turn_.taken = {};
        }
    }

private:
    void serve() OSW_REQUIRES_PERMISSION;
    bool awaitTurn(bool firstPass);
    bool goOnAtOnce();
    void startWorker(MessageQueue::Need need) {
        if (need == MessageQueue::Need::Worker)
            orb_.startCountedWorker_();
    }

    TreflectORB& orb_;
    WorkerTurn turn_;
};

/** A message for which memory does not suffice is answered with a failure. */
void TreflectORB::WorkLoop::serve() {
    orb_.goOn_(orb_.parts_->messageQueue.begin(turn_.taken));
    TreflectMessage const message(turn_.taken.message);
    unsigned int const note = turn_.taken.note;
    bool const served = OSWrap::withMemory([&] {
        handlerthreads::assertPermission();
        IncomingMessage(orb_, message, note).serve();
    });
    if (served)
        return;
    giveBackFurtherLevels();
    REFLECTORB_LOG_LIMITED(orb_.parts_->limits.noMemory, 2, "REFLECT_orb",
                           "ORB 0x%08X has no memory to serve 0x%08X", orb_.termId().value(),
                           message.originator().value());
    IncomingMessage(orb_, message, note).makeUpFor();
}

/** Gives up the run permission until there is a message; false when the worker is to end. */
bool TreflectORB::WorkLoop::awaitTurn(bool firstPass) {
    releaseRunPermission();
    MessageQueue::Need need = MessageQueue::Need::Nothing;
    if (orb_.parts_->messageQueue.next(firstPass, turn_, need) == MessageQueue::Turn::End)
        return false;
    startWorker(need);
    turn_.await();
    return true;
}

/** Serves on without a change of threads while messages wait and only workers are queued for the
 * permission. */
bool TreflectORB::WorkLoop::goOnAtOnce() {
    MessageQueue::Need need = MessageQueue::Need::Nothing;
    if (!orb_.parts_->messageQueue.nextAtOnce(turn_, need))
        return false;
    if (!turn_.mine())
        releaseRunPermission();
    startWorker(need);
    turn_.await();
    return true;
}

void TreflectORB::dispatchEntry() {
    OSWrap::DisableCancelStateGuard const noCancel;
    EndOfWorker const end(parts_->messageQueue);
    WithPermission const permission;
    WorkLoop(*this).run();
}
