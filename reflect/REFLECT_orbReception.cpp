// Arriving messages, on the receiving thread: responses go to their callers, all else to the
// workers.
#include <new>

#include "logging/LineLimit.h"
#include "oswrap/Thread.h"
#include "reflect/OngoingRequest.h"
#include "reflect/ReflectWorker.h"
#include "reflect/TreflectOrbParts.h"

namespace {

/** Our header and the length of a stream: what every message of a broker has. */
constexpr std::size_t kShortestMessage = TreflectMessage::kHeaderSize + 4;

}  // namespace

bool TreflectORB::receive(Transport::AddressedMessage const& addressed) {
    unsigned long const thread = OSWrap::Thread::getCurrentId();
    if (parts_->receivingThreadId.load(std::memory_order_relaxed) != thread)
        parts_->receivingThreadId.store(thread, std::memory_order_relaxed);
    if (addressed.size() < kShortestMessage) {
        static Logging::LineLimit limit;
        REFLECTORB_LOG_LIMITED(limit, 3, "REFLECT_orb",
                               "ORB 0x%08X drops message of %lu bytes from 0x%08X",
                               termId().value(), static_cast<unsigned long>(addressed.size()),
                               addressed.originator().value());
        return true;
    }
    TreflectMessage const message(addressed);
    switch (message.kind()) {
        case TreflectMessage::kResponseFailure:
            REFLECTORB_LOG(0, "REFLECT_orb",
                           "ORB 0x%08X received response failure message from 0x%08X",
                           termId().value(), message.originator().value());
            message.testValidation(TreflectMessage::kResponseFailure, 0, "", true, 0);
            resetUnit();
        case TreflectMessage::kResponse:
        case TreflectMessage::kNoDestination:
            deliverResponse_(message);
            return true;
        default:
            enqueue_(addressed);
            return true;
    }
}

bool TreflectORB::receiveError(Transport::AddressedMessage const& addressed) {
    if (addressed.size() >= kShortestMessage)
        TreflectMessage(addressed).kind(TreflectMessage::kNoDestination);
    return receive(addressed);
}

void TreflectORB::deliverResponse_(TreflectMessage const& response) {
    unsigned int const id = response.transactionId();
    OngoingRequest* const record = parts_->ongoingRequests_.take(id);
    if (!record) {
        REFLECTORB_LOG(3, "REFLECT_orb",
                       "ORB 0x%08X receives unexpected response (org=0x%08X, TransactionId=%X)",
                       termId().value(), response.originator().value(), id);
        testInfoAboutMessage(termId(), response, true);
        return;
    }
    auto* const copy = new (std::nothrow) TreflectMessage(response);
    record->reset(copy ? copy : OngoingRequest::disconnected(), id);
}

void TreflectORB::enqueue_(Transport::AddressedMessage const& message) {
    if (parts_->messageQueue.push(message) == MessageQueue::Need::worker)
        startCountedWorker_();
}

void TreflectORB::startReflectWorker() {
    if (parts_->messageQueue.admitWorker())
        startCountedWorker_();
}

void TreflectORB::startCountedWorker_() {
    auto* const worker = new (std::nothrow) ReflectWorker(*this);
    if (worker) {
        worker->deleteOnThreadTermination();
        if (worker->start())
            return;
        delete worker;
    }
    parts_->messageQueue.workerNotStarted();
    REFLECTORB_LOG(3, "REFLECT_orb", "ORB 0x%08X could not start a ReflectWorker",
                   termId().value());
}
