#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>

#include "transport.h"

namespace transporttest {

constexpr Transport::GroupId kGroup = 3;

/** Head of the messages that the tests send; pattern bytes that depend on `number` fill the rest.
 */
struct TestHead {
    enum Kind : std::uint32_t { Numbered = 1, Echo = 2, Answer = 3 };
    std::uint32_t kind;
    std::uint32_t number;
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

    bool receive(Transport::AddressedMessage const& message) override;
    bool receiveError(Transport::AddressedMessage const& message) override;
    void appeared(Transport::Termination& termination) override;
    void disappeare(Transport::Termination& termination) override;

    /** Sends one message of `size` bytes, its head included, to `to`; what `issue` answers. */
    int send(Transport::TerminationId to, TestHead::Kind kind, std::uint32_t number,
             std::size_t size = sizeof(TestHead));
    /** Sends Echo and waits for its Answer; false when it cannot be sent or the time is up. */
    bool ping(Transport::TerminationId to, std::uint32_t number,
              std::size_t size = sizeof(TestHead));

    struct Tally {
        std::uint32_t received = 0;  // Numbered messages
        std::uint32_t faults = 0;    // of them out of order or damaged
        std::uint32_t returned = 0;  // through receiveError
        std::uint32_t returnedFaults = 0;
    };
    Tally tally() const;
    /** Waits until so many Numbered messages have come. */
    bool waitForReceived(std::uint32_t count) const;
    bool waitForReturned(std::uint32_t count) const;
    bool waitUntilKnown(Transport::TerminationId id) const;
    bool waitUntilGone(Transport::TerminationId id) const;

private:
    template <class Condition>
    bool waitFor(Condition condition) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Tally tally_;                                 // guarded by mutex_
    std::map<unsigned int, std::uint32_t> next_;  // guarded by mutex_; expected of each originator
    std::set<unsigned int> known_;                // guarded by mutex_
    std::set<unsigned int> gone_;                 // guarded by mutex_
    std::uint32_t lastAnswer_ = 0;                // guarded by mutex_
};

}  // namespace transporttest
