#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Waiting.h"
#include "transport.h"

namespace transporttest {

constexpr Transport::GroupId kGroup = 3;

/** Eight hexadecimal digits. */
inline std::string hex(Transport::TerminationId id) {
    char text[12];
    std::snprintf(text, sizeof text, "%08x", id.value());
    return text;
}

/** Head of the messages that the tests send; pattern bytes that depend on `number` fill the rest.
 */
struct TestHead {
    enum Kind : std::uint32_t { Numbered = 1, Echo = 2, Answer = 3 };
    std::uint32_t kind;
    std::uint32_t number;

    static TestHead of(Transport::AddressedMessage const& message) {
        TestHead head{};
        if (message.size() >= sizeof head)
            std::memcpy(&head, message.buf(), sizeof head);
        return head;
    }
    unsigned char patternByte(std::size_t position) const {
        return static_cast<unsigned char>(number * 31 + position);
    }
    void fill(Transport::AddressedMessage& message) const {
        std::memcpy(message.buf(), this, sizeof *this);
        for (std::size_t i = sizeof *this; i < message.size(); ++i)
            message.buf()[i] = patternByte(i);
    }
    bool isIntact(Transport::AddressedMessage const& message) const {
        for (std::size_t i = sizeof *this; i < message.size(); ++i)
            if (message.buf()[i] != patternByte(i))
                return false;
        return true;
    }
};

/**
 * A termination that answers Echo with Answer and checks that Numbered messages of each originator
 * come complete, in order, and once. Stops itself when it is deleted.
 */
class TestTermination : public Transport::TerminationImpl {
public:
    explicit TestTermination(char const* name = "test")
        : Transport::TerminationImpl(kGroup, name) {}
    ~TestTermination() override { stop(); }

    /** Called on the receiving thread with each message before it is counted; when it answers
     * false, the termination may be gone. Set before messages come. */
    using Hook = std::function<bool(Transport::AddressedMessage const&)>;
    void onReceive(Hook hook) { hook_ = std::move(hook); }

    bool receive(Transport::AddressedMessage const& message) override {
        if (Hook const hook = hook_; hook && !hook(message))
            return true;
        TestHead const head = TestHead::of(message);
        if (head.kind == TestHead::Echo) {
            send(message.originator(), TestHead::Answer, head.number, message.size());
            return true;
        }
        bool const intact = head.isIntact(message) && message.destination() == termId();
        std::lock_guard<std::mutex> const lock(mutex_);
        if (head.kind == TestHead::Answer) {
            lastAnswer_ = intact ? head.number : 0;
        } else {
            ++tally_.received;
            std::uint32_t& next = next_[message.originator().value()];
            count(came_[message.originator().value()], head.number);
            tally_.faults += head.kind != TestHead::Numbered || head.number != next || !intact;
            next = head.number + 1;
        }
        changed_.notify_all();
        return true;
    }
    bool receiveError(Transport::AddressedMessage const& message) override {
        bool const intact =
            TestHead::of(message).isIntact(message) && message.originator() == termId();
        std::lock_guard<std::mutex> const lock(mutex_);
        ++tally_.returned;
        TestHead const head = TestHead::of(message);
        if (head.kind == TestHead::Numbered)
            count(back_[message.destination().value()], head.number);
        else if (head.kind == TestHead::Echo)
            lastUnanswered_ = head.number;
        tally_.returnedFaults += !intact;
        changed_.notify_all();
        return true;
    }
    void appeared(Transport::Termination& other) override { note(known_, other); }
    void disappeare(Transport::Termination& other) override { note(gone_, other); }

    /** Sends one message of `size` bytes, its head included, to `to`; what `issue` answers. */
    int send(Transport::TerminationId to, TestHead::Kind kind, std::uint32_t number,
             std::size_t size = sizeof(TestHead)) {
        Transport::AddressedMessage message = allocateMessage(size, 5);
        if (message.empty())
            return 0;
        TestHead{kind, number}.fill(message);
        return Transport::Termination(to).issue(message);
    }
    /** Sends Echo and waits for its Answer; false when it cannot be sent, comes back, or the time
     * is up. */
    bool ping(Transport::TerminationId to, std::uint32_t number,
              std::size_t size = sizeof(TestHead)) {
        return send(to, TestHead::Echo, number, size) == 1 && waitFor([this, number] {
                   return lastAnswer_ == number || lastUnanswered_ == number;
               }) &&
               isAnswered(number);
    }

    /** Whether that Echo was the last one that was answered. */
    bool isAnswered(std::uint32_t number) const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return lastAnswer_ == number;
    }

    struct Tally {
        std::uint32_t received = 0;  // Numbered messages
        std::uint32_t faults = 0;    // of them out of order or damaged
        std::uint32_t returned = 0;  // through receiveError
        std::uint32_t returnedFaults = 0;
    };
    Tally tally() const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return tally_;
    }
    /** How often each number of Numbered messages has come from another one, or has come back that
     * was sent to it, in runs: "1x500 0x3 1x20". */
    std::string came(Transport::TerminationId from) const { return runsOf(came_, from); }
    std::string back(Transport::TerminationId to) const { return runsOf(back_, to); }
    /** Waits until so many Numbered messages have come. */
    bool waitForReceived(std::uint32_t count) const {
        return waitFor([this, count] { return tally_.received >= count; });
    }
    bool waitForReturned(std::uint32_t count) const {
        return waitFor([this, count] { return tally_.returned >= count; });
    }
    bool waitUntilKnown(Transport::TerminationId id) const {
        return waitFor([this, id] { return known_.count(id.value()) != 0; });
    }
    std::size_t countGone() const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return gone_.size();
    }
    bool waitUntilGone(Transport::TerminationId id) const {
        return waitFor([this, id] { return gone_.count(id.value()) != 0; });
    }

private:
    using Times = std::vector<unsigned char>;  // by number

    static void count(Times& times, std::uint32_t number) {
        constexpr std::uint32_t kMost = 10'000'000;
        if (number >= kMost)
            return;
        if (times.size() <= number)
            times.resize(number + 1);
        ++times[number];
    }
    std::string runsOf(std::map<unsigned int, Times> const& all,
                       Transport::TerminationId other) const {
        std::lock_guard<std::mutex> const lock(mutex_);
        auto const found = all.find(other.value());
        Times const none, &times = found == all.end() ? none : found->second;
        std::string runs;
        for (auto at = times.begin(); at != times.end();) {
            auto const end = std::find_if(at, times.end(), [at](auto one) { return one != *at; });
            runs += " " + std::to_string(*at) + "x" + std::to_string(end - at);
            at = end;
        }
        return runs;
    }
    void note(std::set<unsigned int>& ids, Transport::Termination& other) {
        std::lock_guard<std::mutex> const lock(mutex_);
        ids.insert(other.termId().value());
        changed_.notify_all();
    }
    template <class Condition>
    bool waitFor(Condition condition) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, testsupport::kPatience, condition);
    }

    Hook hook_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Tally tally_;                                 // guarded by mutex_
    std::map<unsigned int, std::uint32_t> next_;  // guarded by mutex_; expected of each originator
    std::map<unsigned int, Times> came_;          // guarded by mutex_
    std::map<unsigned int, Times> back_;          // guarded by mutex_
    std::set<unsigned int> known_;                // guarded by mutex_
    std::set<unsigned int> gone_;                 // guarded by mutex_
    std::uint32_t lastAnswer_ = 0;                // guarded by mutex_
    std::uint32_t lastUnanswered_ = 0;            // guarded by mutex_
};

/** Requests of a thread, one after the other, which takes in the answers by itself when it may. */
class Asker final : private Transport::AnswerWait::Awaited {
public:
    Asker(TestTermination& own, Transport::TerminationId peer) : own_(own), peer_(peer) {}

    /** Sends Echo; what `issue` answers. */
    int ask(std::uint32_t number, std::size_t size = sizeof(TestHead)) {
        asked_ = number;
        Transport::AddressedMessage message = own_.allocateMessage(size, 5);
        message.originator(own_.termId());
        TestHead{TestHead::Echo, number}.fill(message);
        return wait_.emplace().issue(message, peer_);
    }
    /** Takes in what comes until the answer has or somebody else reads; whether it has read. */
    bool read() {
        Transport::AnswerWait::Reading reading(*wait_);
        bool const begun = reads_ = reading.goesOn();
        while (reading.goesOn() && !hasCome())
            if (reading.hasData())
                reading.takeIn(*this);
            else
                reading.sleep(1'000'000'000);
        return begun;
    }
    bool reads() const { return reads_; }
    Transport::TerminationId peer() const { return peer_; }
    /** To be called with each answer. */
    void answered(std::uint32_t number) { answered_ = number; }
    bool hasCome() const override { return answered_ == asked_; }

private:
    TestTermination& own_;
    Transport::TerminationId const peer_;
    std::optional<Transport::AnswerWait> wait_;
    std::atomic<std::uint32_t> asked_{0};
    std::atomic<std::uint32_t> answered_{0};
    std::atomic<bool> reads_{false};
};

}  // namespace transporttest
