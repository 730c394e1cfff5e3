// Arriving messages, on the receiving thread or one that reads in its place, one at a time:
// responses go to their callers, all else to the workers.
#include <algorithm>
#include <cstring>
#include <new>

#include "ipprmi/BigEndian.h"
#include "logging/LineLimit.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/Thread.h"
#include "reflect/broker/CallHeader.h"
#include "reflect/broker/OngoingRequest.h"
#include "reflect/broker/ReceivingScope.h"
#include "reflect/broker/ReflectWorker.h"
#include "reflect/broker/TreflectOrbParts.h"
#include "transport/IdInfo.h"

namespace {

/** What every message of a broker has. */
constexpr std::size_t kShortestMessage =
    TreflectMessage::kHeaderSize + callheader::kStreamLengthSize;

/** A call for which nobody waits, on its way back. */
bool isReturnedOneWay(TreflectMessage const& message) {
    return message.kind() == TreflectMessage::kNoDestination &&
           message.type() == TreflectMessage::tPayload && message.size() >= callheader::kEnd &&
           ipprmi::loadBigEndian(message.buf() + callheader::kTransaction) == 0;
}

/** Of a message before it has come back: whether it ends somebody's wait. */
bool answers(TreflectMessage const& message) {
    return message.kind() == TreflectMessage::kResponse ||
           message.kind() == TreflectMessage::kNoDestination;
}

}  // namespace

bool TreflectORB::receive(Transport::AddressedMessage const& addressed) {
    ReceivingScope::receives(*this);
    if (addressed.size() < kShortestMessage) {
        REFLECTORB_LOG_LIMITED(parts_->limits.shortMessage, 3, "REFLECT_orb",
                               "ORB 0x%08X drops message of %lu bytes from 0x%08X",
                               termId().value(), static_cast<unsigned long>(addressed.size()),
                               addressed.originator().value());
        return true;
    }
    TreflectMessage const message(addressed);
    switch (message.kind()) {
        case TreflectMessage::kResponseFailure:
            receiveResponseFailure_(message);
            return true;
        case TreflectMessage::kResponse:
        case TreflectMessage::kNoDestination:
            deliverResponse_(message);
            return true;
        default:
            if (!enqueue_(addressed))
                sendBack_(addressed);
            return true;
    }
}

/** A process that goes on may be told again and again. */
void TreflectORB::receiveResponseFailure_(TreflectMessage const& message) {
    bool const goesOn = Transport::IdInfo::instance().failsOnSilence();
    unsigned long heldBack = 0;
    if (goesOn && !parts_->limits.responseFailure.pass(heldBack))
        return;
    REFLECTORB_LOG(0, "REFLECT_orb", "ORB 0x%08X received response failure message from 0x%08X",
                   termId().value(), message.originator().value());
    message.testValidation(TreflectMessage::kResponseFailure, 0, "", true, 0);
    if (!goesOn)
        resetUnit();
    REFLECTORB_LOG(3, "REFLECT_orb", "ORB 0x%08X goes on instead of an abort", termId().value());
    Logging::tellHeldBack(heldBack, 3, __LINE__, "REFLECT_orb");
}

/** An answer is sent once more: who waits for it may be there, and have closed the channel for want
 * of memory only. All else has failed. */
bool TreflectORB::receiveError(Transport::AddressedMessage const& addressed) {
    if (addressed.size() < kShortestMessage)
        return receive(addressed);
    bool const isAnswer = answers(addressed);
    if (isAnswer && sendAgain(addressed))
        return true;
    TreflectMessage message(addressed);
    message.kind(TreflectMessage::kNoDestination);
    if (!isAnswer)
        return receive(addressed);
    reportUnexpected_(message);  // its id is one of the asker's
    return true;
}

/** A response counts if it comes from who was asked, or is the request itself that comes back from
 * there. */
void TreflectORB::deliverResponse_(TreflectMessage const& response) {
    bool const ownMessage =
        response.kind() == TreflectMessage::kNoDestination && response.originator() == termId();
    Transport::TerminationId const answerer =
        ownMessage ? response.destination() : response.originator();
    if (isReturnedOneWay(response)) {
        // Ids come round, so a request that waits under the same id is another one.
        countReturnedCall_(answerer);
        reportUnexpected_(response);
        return;
    }
    unsigned int const id = response.transactionId();
    RequestTable::Found const found = parts_->ongoingRequests_.take(id, answerer);
    if (found.record) {
        auto* const copy = new (std::nothrow) TreflectMessage(response);
        found.record->reset(copy ? copy : OngoingRequest::disconnected(), id);
    } else if (found.target.value() != 0) {
        reportForged_(response, found.target);
    } else {
        reportUnexpected_(response);
    }
}

void TreflectORB::countReturnedCall_(Transport::TerminationId target) {
    parts_->returnedCalls.add(target);
    REFLECTORB_LOG_LIMITED(parts_->limits.returnedCall, 4, "REFLECT_orb",
                           "ORB 0x%08X one-way call to 0x%08X came back: it has failed",
                           termId().value(), target.value());
}

void TreflectORB::reportUnexpected_(TreflectMessage const& response) {
    unsigned long heldBack = 0;
    if (!parts_->limits.unexpectedResponse.pass(heldBack))
        return;
    REFLECTORB_LOG(3, "REFLECT_orb",
                   "ORB 0x%08X receives unexpected response (org=0x%08X, TransactionId=%X)",
                   termId().value(), response.originator().value(), response.transactionId());
    testInfoAboutMessage(termId(), response, true);
    Logging::tellHeldBack(heldBack, 3, __LINE__, "REFLECT_orb");
}

/** Somebody answers in the place of `target`, which still may. */
void TreflectORB::reportForged_(TreflectMessage const& response, Transport::TerminationId target) {
    unsigned long heldBack = 0;
    if (!parts_->forgedResponses.pass(response.originator(), heldBack))
        return;
    REFLECTORB_LOG(3, "REFLECT_orb",
                   "ORB 0x%08X drops response of 0x%08X to a request to 0x%08X (TransactionId=%X)",
                   termId().value(), response.originator().value(), target.value(),
                   response.transactionId());
    Logging::tellHeldBack(heldBack, 3, __LINE__, "REFLECT_orb");
}

/** Has a worker serve the message, in its turn; false when too much waits, or memory has run out.
 * A notice counts from now on, however long it waits. */
bool TreflectORB::enqueue_(Transport::AddressedMessage const& message) {
    MessageQueue::Pushed const pushed =
        parts_->messageQueue.push(message, parts_->classes.subscriptions().deletions());
    if (pushed.need == MessageQueue::Need::Worker)
        startCountedWorker_(Patience::Some);
    if (pushed.isMuch)
        holdBack_(message.originator());
    return pushed.fate == MessageQueue::Fate::Kept;
}

/** Too much waits already. Within the process the message comes back as it is; another process gets
 * its head, which is all that it looks at. */
void TreflectORB::sendBack_(Transport::AddressedMessage const& message) {
    Transport::TerminationId const sender = message.originator();
    REFLECTORB_LOG_LIMITED(parts_->limits.tooMuch, 3, "REFLECT_orb",
                           "ORB 0x%08X sends message of %lu bytes back to 0x%08X: too much waits",
                           termId().value(), static_cast<unsigned long>(message.size()),
                           sender.value());
    if (Transport::Termination(sender).issueError(message) == 1)
        return;
    std::size_t const size =
        std::min<std::size_t>(message.size(), TreflectMessage::kHeaderSize + callheader::kEnd);
    bool const awaited = TreflectMessage(message).kind() == TreflectMessage::kRequest;
    int sent = 0;
    auto const sendHead = [&] {
        TreflectMessage fresh(allocateMessage(size, 5));
        TreflectMessage& head = fresh.empty() ? parts_->reserve.sentBack : fresh;
        if (head.addressed().extend(size)) {
            std::memcpy(head.addressed().buf(), message.buf(), size);
            head.kind(TreflectMessage::kNoDestination);
        }
        sent = awaited ? issueAnswer_(sender, head) : issueTo_(sender, head);
        if (sent != 1 && awaited && fresh.empty())
            throw std::bad_alloc();
    };
    // A caller waits for it like for an answer, so a shortage of memory is waited for a little.
    constexpr int kAttempts = 10;
    for (int attempt = 1; !OSWrap::withMemory(sendHead) && attempt < kAttempts; ++attempt)
        OSWrap::awaitMemory();
    if (sent != 1)
        REFLECTORB_LOG_LIMITED(parts_->limits.notSentBack, 3, "REFLECT_orb",
                               "ORB 0x%08X could not send a message back to 0x%08X: lost",
                               termId().value(), sender.value());
}

/**
 * Answers come the same way as all else, so a broker of which one is awaited is not held back. The
 * caller enters its request before it looks for marks, we set the mark before we look for requests:
 * one of us sees the other.
 */
void TreflectORB::holdBack_(Transport::TerminationId sender) {
    if (parts_->ongoingRequests_.awaits(sender) || !parts_->messageQueue.holdBack(sender))
        return;
    bool const mayStay = holdBack(sender) && !parts_->ongoingRequests_.awaits(sender);
    auto const when = mayStay ? Backlog::When::Little : Backlog::When::Anyway;
    // Others may have taken the mark away, and had it go on before it was held back.
    if (parts_->messageQueue.letGo(sender, when) != Backlog::Mark::Stays)
        goOn_(sender);
}

void TreflectORB::goOn_(Transport::TerminationId sender) const {
    if (sender.value() != 0)
        goOn(sender);
}

void TreflectORB::letAnswer_(Transport::TerminationId target) const {
    if (parts_->messageQueue.holdsBack() &&
        parts_->messageQueue.letGo(target, Backlog::When::Anyway) == Backlog::Mark::Taken)
        goOn_(target);
}

void TreflectORB::startReflectWorker() {
    if (parts_->messageQueue.admitWorker())
        startCountedWorker_(Patience::Some);
}

void TreflectORB::startCountedWorker_(Patience patience) {
    int const attempts = patience == Patience::Some ? 10 : 1;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (attempt > 0)
            OSWrap::awaitMemory();
        auto* const worker = new (std::nothrow) ReflectWorker(*this);
        if (!worker)
            continue;
        worker->deleteOnThreadTermination();
        if (worker->start())
            return;
        delete worker;
    }
    parts_->messageQueue.workerNotStarted();
    REFLECTORB_LOG_LIMITED(parts_->limits.noWorker, 3, "REFLECT_orb",
                           "ORB 0x%08X could not start a ReflectWorker", termId().value());
}
