// A termination that sends messages of all sizes to those of other processes, and keeps a journal
// of what becomes of them; driven by lines on standard input.
#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "ActorSide.h"
#include "Ledger.h"
#include "Waiting.h"
#include "transport.h"

namespace soak {
namespace {

using testsupport::answer;
using Transport::AddressedMessage;
using Transport::TerminationId;

/** Behind the head of a message that is answered at once, and is in no ledger. */
constexpr std::uint32_t kPing = 0xFFFF'FFFF, kPong = 0xFFFF'FFFE;
constexpr std::chrono::milliseconds kPongLimit(1000);

class CourierTermination final : public Transport::TerminationImpl {
public:
    CourierTermination(CourierLife life, std::string const& journal)
        : TerminationImpl(kCourierGroup, "courier"), life_(life), journal_(journal) {}
    ~CourierTermination() override { stop(); }

    bool receive(AddressedMessage const& message) override {
        Parcel const parcel = parcelOf(message);
        if (parcel.number == kPing) {
            send(message.originator(), {parcel.author, kPong}, sizeof parcel);
        } else if (parcel.number == kPong) {
            std::lock_guard<std::mutex> const lock(mutex_);
            lastPong_ = parcel.author;
            ponged_.notify_all();
        } else {
            note(isIntact(message, parcel) ? Entry::Came : Entry::Damaged, parcel);
        }
        return true;
    }
    bool receiveError(AddressedMessage const& message) override {
        Parcel const parcel = parcelOf(message);
        if (parcel.number < kPong)
            note(isIntact(message, parcel) ? Entry::Back : Entry::Damaged, parcel);
        return true;
    }
    void appeared(Transport::Termination&) override {}
    void disappeare(Transport::Termination&) override {}

    /** One more message, which is noted. */
    void post(TerminationId to, std::size_t size) {
        Parcel const parcel{life_, ++number_};
        journal_.note({Entry::Tried, to.value(), parcel.author, parcel.number,
                       static_cast<std::uint32_t>(size), 0});
        note(send(to, parcel, size) ? Entry::Taken : Entry::Refused, parcel);
    }
    /** Whether it answers in time; one question after the other. */
    bool reaches(TerminationId to) {
        std::uint32_t const question = ++questions_;
        if (!send(to, {question, kPing}, sizeof(Parcel)))
            return false;
        std::unique_lock<std::mutex> lock(mutex_);
        return ponged_.wait_for(lock, kPongLimit, [&] { return lastPong_ == question; });
    }
    Journal& journal() { return journal_; }

private:
    static Parcel parcelOf(AddressedMessage const& message) {
        Parcel parcel{};
        if (message.size() >= sizeof parcel)
            std::memcpy(&parcel, message.buf(), sizeof parcel);
        return parcel;
    }
    static bool isIntact(AddressedMessage const& message, Parcel const& parcel) {
        for (std::size_t i = sizeof parcel; i < message.size(); ++i)
            if (message.buf()[i] != parcel.byteAt(i))
                return false;
        return message.size() >= sizeof parcel;
    }
    void note(Entry::Kind kind, Parcel const& parcel) {
        journal_.note({kind, 0, parcel.author, parcel.number, 0, 0});
    }
    bool send(TerminationId to, Parcel const& parcel, std::size_t size) {
        AddressedMessage message = allocateMessage(size, 5);
        std::memcpy(message.buf(), &parcel, sizeof parcel);
        for (std::size_t i = sizeof parcel; i < size; ++i)
            message.buf()[i] = parcel.byteAt(i);
        return Transport::Termination(to).issue(message) == 1;
    }

    CourierLife const life_;
    Journal journal_;
    std::uint32_t number_ = 0;     // of the thread that posts
    std::uint32_t questions_ = 0;  // of the thread that asks
    std::mutex mutex_;
    std::condition_variable ponged_;
    std::uint32_t lastPong_ = 0;  // guarded by mutex_
};

/** Posts in bursts, from `go` to `rest`, on a thread of its own. */
class Round {
public:
    Round(CourierTermination& courier, std::vector<TerminationId> const& couriers, unsigned seed)
        : courier_(courier), couriers_(couriers), random_(seed), thread_([this] { run(); }) {}
    ~Round() {
        over_ = true;
        thread_.join();
    }
    Round(Round const&) = delete;
    Round& operator=(Round const&) = delete;

private:
    unsigned dice(unsigned sides) { return static_cast<unsigned>(random_()) % sides; }
    std::size_t size() {
        if (dice(300) == 0)
            return sizeof(Parcel) + dice(kLargestParcel - sizeof(Parcel));
        return sizeof(Parcel) + (dice(20) == 0 ? dice(100'000) : dice(400));
    }
    void run() {
        while (!over_) {
            TerminationId const to = couriers_[dice(static_cast<unsigned>(couriers_.size()))];
            for (unsigned left = 1 + dice(100); left > 0 && !over_; --left)
                courier_.post(to, size());
            std::this_thread::sleep_for(std::chrono::milliseconds(dice(30)));
        }
    }

    CourierTermination& courier_;
    std::vector<TerminationId> const couriers_;
    std::mt19937 random_;
    std::atomic<bool> over_{false};
    std::thread thread_;
};

using Text = std::string;

std::unique_ptr<CourierTermination> courier;
std::unique_ptr<Round> posting;

TerminationId idOf(Text const& hex) {
    return TerminationId(static_cast<std::uint32_t>(std::stoul(hex, nullptr, 16)));
}

void begin(CourierLife life, Text const& journal) {
    courier = std::make_unique<CourierTermination>(life, journal);
    bool const started = courier->start() == 1;
    answer("id ", std::hex, started ? courier->termId().value() : 0u);
}

bool go(Text const& ids, unsigned seed) {
    std::vector<TerminationId> to;
    std::istringstream all(ids);
    for (Text id; std::getline(all, id, ',');)
        to.push_back(idOf(id));
    posting = std::make_unique<Round>(*courier, to, seed);
    return true;
}

bool rest() {
    posting.reset();
    return true;
}

void view() {
    std::vector<std::uint32_t> ids;
    for (TerminationId const id : Transport::TransportLayer::instance().getTerminations())
        if (id.groupId() == kCourierGroup)
            ids.push_back(id.value());
    std::sort(ids.begin(), ids.end());
    std::ostringstream text;
    for (std::uint32_t const id : ids)
        text << " " << std::hex << id;
    answer("view", text.str());
}

testsupport::Commands const commands{
    // Takes its place in the run and a journal; its "id", 0 when refused.
    {"begin", begin},
    // Posts to those terminations, "ID,ID,...", until "rest".
    {"go", go},
    {"rest", rest},
    // Whether that termination answers a message.
    {"reaches", [](Text id) { return courier->reaches(idOf(id)); }},
    // All members of the group that it knows; "view ID...".
    {"view", view},
    // Begins its journal anew.
    {"clear", [] { return courier->journal().clear(), true; }}};

}  // namespace
}  // namespace soak

int main() {
    testsupport::obeyLines(soak::commands);
    soak::posting.reset();
    soak::courier.reset();
}
