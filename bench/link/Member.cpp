#include "link/Member.h"

#include <sched.h>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <set>
#include <vector>

#include "link/Moment.h"
#include "logging.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Switchboard.h"
#include "transport.h"

namespace bench {
namespace {

using Transport::Rendezvous;
using Transport::TerminationId;

constexpr Transport::GroupId kGroup = 3;

enum Kind : std::uint32_t { Data, Last, Done };

class Member final : public Transport::TerminationImpl {
public:
    Member() : TerminationImpl(kGroup, "member") {}
    ~Member() override { stop(); }

    bool receive(Transport::AddressedMessage const& message) override {
        std::uint32_t kind = Data;
        std::memcpy(&kind, message.buf(), sizeof kind);
        if (kind == Last)
            send(message.originator(), Done, sizeof kind);
        if (kind == Done)
            change([this] { done_ = true; });
        return true;
    }
    bool receiveError(Transport::AddressedMessage const&) override {
        std::fputs("a message has come back\n", stderr);
        return true;
    }
    void appeared(Transport::Termination& other) override {
        if (other.termId().slotId() != termId().slotId())
            change([&] { others_.insert(other.termId()); });
    }
    void disappeare(Transport::Termination& other) override {
        change([&] { others_.erase(other.termId()); });
    }

    /** Waits until as many are known as `enough` wants. */
    template <class Enough>
    void await(Enough const& enough) {
        answerWhen([&] { return enough(others_.size()); }, [this] { return changedAt_; });
    }
    void stream(TerminationId to, unsigned long count, std::size_t bytes) {
        change([this] { done_ = false; });
        double const start = moment();
        for (unsigned long i = 1; i < count; ++i)
            send(to, Data, bytes);
        send(to, Last, bytes);
        answerWhen([this] { return done_; }, [&] { return (moment() - start) / 1e6; });
    }

private:
    template <class Change>
    void change(Change const& change) {
        std::lock_guard<std::mutex> const lock(mutex_);
        change();
        changedAt_ = moment();
        changed_.notify_all();
    }
    template <class Condition, class Value>
    void answerWhen(Condition const& condition, Value const& value) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (changed_.wait_for(lock, std::chrono::seconds(30), condition))
            std::printf("%.6f\n", value());
        else
            std::puts("late");
    }
    /** Until there is room for it. */
    void send(TerminationId to, Kind kind, std::size_t bytes) {
        Transport::AddressedMessage message = allocateMessage(bytes, 5);
        std::memcpy(message.buf(), &kind, sizeof kind);
        while (Transport::Termination(to).issue(message) == 0)
            sched_yield();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::set<TerminationId> others_;  // guarded by mutex_, as the next
    double changedAt_ = 0;
    bool done_ = false;
};

/** Their sockets stay open until the process ends. */
void show(int count) {
    std::vector<TerminationId> ids;
    for (int i = 0; i < count; ++i)
        ids.push_back(Rendezvous::instance().reserve(kGroup, "seat"));
    for (Transport::OpenSocket& socket : Rendezvous::instance().publish(ids))
        socket.release();
    std::puts("shown");
}

}  // namespace

int memberMain() {
    Logging::setThreshold(3);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Member member;
    if (member.start() != 1)
        return 1;
    for (std::string verb; std::cin >> verb;) {
        std::size_t count = 0;
        if (verb == "id") {
            std::printf("%u\n", member.termId().value());
        } else if (verb == "show") {
            std::cin >> count;
            show(static_cast<int>(count));
        } else if (verb == "know") {
            std::cin >> count;
            member.await([count](std::size_t known) { return known >= count; });
        } else if (verb == "lose") {
            std::cin >> count;
            member.await([count](std::size_t known) { return known <= count; });
        } else if (verb == "stream") {
            std::uint32_t to = 0;
            std::size_t bytes = 0;
            std::cin >> to >> count >> bytes;
            member.stream(TerminationId(to), count, bytes);
        }
    }
    return 0;
}

}  // namespace bench
