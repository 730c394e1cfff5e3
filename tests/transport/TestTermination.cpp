#include "TestTermination.h"

#include <cstring>

#include "Waiting.h"

namespace transporttest {
namespace {

unsigned char patternByte(std::uint32_t number, std::size_t position) {
    return static_cast<unsigned char>(number * 31 + position);
}

void fill(Transport::AddressedMessage& message, TestHead const& head) {
    std::memcpy(message.buf(), &head, sizeof head);
    for (std::size_t i = sizeof head; i < message.size(); ++i)
        message.buf()[i] = patternByte(head.number, i);
}

TestHead headOf(Transport::AddressedMessage const& message) {
    TestHead head{};
    if (message.size() >= sizeof head)
        std::memcpy(&head, message.buf(), sizeof head);
    return head;
}

bool isIntact(Transport::AddressedMessage const& message, TestHead const& head) {
    for (std::size_t i = sizeof head; i < message.size(); ++i)
        if (message.buf()[i] != patternByte(head.number, i))
            return false;
    return true;
}

}  // namespace

bool TestTermination::receive(Transport::AddressedMessage const& message) {
    TestHead const head = headOf(message);
    if (head.kind == TestHead::Echo) {
        Transport::AddressedMessage answer = allocateMessage(message.size(), 5);
        TestHead const answerHead{TestHead::Answer, head.number};
        std::memcpy(answer.buf(), message.buf(), message.size());
        std::memcpy(answer.buf(), &answerHead, sizeof answerHead);
        Transport::Termination(message.originator()).issue(answer);
        return true;
    }
    bool const intact = isIntact(message, head) && message.destination() == termId();
    std::lock_guard<std::mutex> const lock(mutex_);
    if (head.kind == TestHead::Answer) {
        lastAnswer_ = intact ? head.number : 0;
    } else {
        ++tally_.received;
        std::uint32_t& next = next_[message.originator().value()];
        if (head.kind != TestHead::Numbered || head.number != next || !intact)
            ++tally_.faults;
        next = head.number + 1;
    }
    changed_.notify_all();
    return true;
}

bool TestTermination::receiveError(Transport::AddressedMessage const& message) {
    TestHead const head = headOf(message);
    bool const intact = isIntact(message, head) && message.originator() == termId();
    std::lock_guard<std::mutex> const lock(mutex_);
    ++tally_.returned;
    if (!intact)
        ++tally_.returnedFaults;
    changed_.notify_all();
    return true;
}

void TestTermination::appeared(Transport::Termination& termination) {
    std::lock_guard<std::mutex> const lock(mutex_);
    known_.insert(termination.termId().value());
    changed_.notify_all();
}

void TestTermination::disappeare(Transport::Termination& termination) {
    std::lock_guard<std::mutex> const lock(mutex_);
    gone_.insert(termination.termId().value());
    changed_.notify_all();
}

int TestTermination::send(Transport::TerminationId to, TestHead::Kind kind, std::uint32_t number,
                          std::size_t size) {
    Transport::AddressedMessage message = allocateMessage(size, 5);
    if (message.empty())
        return 0;
    fill(message, {kind, number});
    return Transport::Termination(to).issue(message);
}

bool TestTermination::ping(Transport::TerminationId to, std::uint32_t number, std::size_t size) {
    if (send(to, TestHead::Echo, number, size) != 1)
        return false;
    return waitFor([this, number] { return lastAnswer_ == number; });
}

TestTermination::Tally TestTermination::tally() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return tally_;
}

template <class Condition>
bool TestTermination::waitFor(Condition condition) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, testsupport::kPatience, condition);
}

bool TestTermination::waitForReceived(std::uint32_t count) const {
    return waitFor([this, count] { return tally_.received >= count; });
}

bool TestTermination::waitForReturned(std::uint32_t count) const {
    return waitFor([this, count] { return tally_.returned >= count; });
}

bool TestTermination::waitUntilKnown(Transport::TerminationId id) const {
    return waitFor([this, id] { return known_.count(id.value()) != 0; });
}

bool TestTermination::waitUntilGone(Transport::TerminationId id) const {
    return waitFor([this, id] { return gone_.count(id.value()) != 0; });
}

}  // namespace transporttest
