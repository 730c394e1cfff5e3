#include "link/Bare.h"

#include <dds/dds.h>
#include <dds/ddsc/dds_public_impl.h>

#include <algorithm>
#include <atomic>
#include <boost/noncopyable.hpp>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "link/Moment.h"
#include "platform/transport/link/Bus.h"

namespace bench {
namespace {

/** What a piece is for stands in the place of its number. */
enum Kind : std::uint64_t { Hello, Welcome, Ping, Pong, SlowPing, SlowPong, Data, Last, Done };

/** So many direct round trips come in a row; then nothing for a while, in which all is confirmed:
 * a listener that had to wait for that would wait in vain. */
constexpr std::size_t kRun = 64;
constexpr std::chrono::milliseconds kPause(15);

class Bare final : private boost::noncopyable, public Link::BusListener {
public:
    explicit Bare(unsigned char slot) {
        own_.epoch = std::uint64_t{slot} + 1;
        own_.slot = slot;
        own_.machine = std::to_string(slot);
        Link::BusOptions options;
        options.interface = "cable";
        options.domain = 8;
        bus_ = Link::Bus::open(options, own_, *this).bus;
        slow_ = std::thread([this] { writeSlowly(); });
    }
    ~Bare() {
        change([this] { ends_ = true; });
        slow_.join();
    }

    bool meet() {
        if (bus_ == nullptr || !bus_->announce())
            return false;
        if (!await([this] { return seen_; }))
            return false;
        writer_ = bus_->writerTo(other_);
        ready_ = true;
        for (int tries = 0; tries < 200 && !heard_; ++tries) {
            write(Hello, 0);
            waitFor(std::chrono::milliseconds(50), [this] { return heard_.load(); });
        }
        return heard_;
    }

    void ping(double seconds, std::size_t bytes, bool direct) {
        times_.clear();
        pingBytes_ = bytes;
        end_ = moment() + seconds * 1e6;
        finished_ = false;
        sentAt_ = moment();
        write(direct ? Ping : SlowPing, bytes);
        await([this] { return finished_; });
        std::sort(times_.begin(), times_.end());
        auto const at = [this](double part) {
            return times_[static_cast<std::size_t>(part * static_cast<double>(times_.size() - 1))];
        };
        std::printf("%.2f %.2f %.2f\n", at(0.5), at(0.99),
                    std::accumulate(times_.begin(), times_.end(), 0.0) /
                        static_cast<double>(times_.size()));
    }

    void stream(unsigned long count, std::size_t bytes, bool gather) {
        finished_ = false;
        fill(bytes);
        dds_write_set_batch(gather);
        double const start = moment();
        piece_.head.number = Data;
        for (unsigned long i = 1; i < count; ++i)
            writer_->write(piece_);
        dds_write_set_batch(false);
        piece_.head.number = Last;
        writer_->write(piece_);
        await([this] { return finished_; });
        std::printf("%.6f\n", (moment() - start) / 1e6);
    }

private:
    void unitSeen(Link::UnitInfo const& unit) override {
        if (unit.epoch != own_.epoch)
            change([&] {
                other_ = unit;
                seen_ = true;
            });
    }
    void unitLost(std::uint64_t) override {}
    void strangerSeen() override {}
    void pieceArrived(std::uint64_t, Link::PieceHead const& head, unsigned char const*,
                      std::size_t size) override {
        if (!ready_)
            return;
        switch (head.number) {
            case Hello:
                return write(Welcome, 0);
            case Ping:
                return write(Pong, size);
            case SlowPing:
                return change([&] { slowly_ = {SlowPong, size}; });
            case Last:
                return write(Done, 0);
            case Pong:
            case SlowPong:
                return ponged(head.number == Pong);
            case Done:
                return change([this] { finished_ = true; });
            case Welcome:
                return change([this] { heard_ = true; });
            default:
                return;
        }
    }
    void ponged(bool direct) {
        double const now = moment();
        times_.push_back(now - sentAt_);
        if (now >= end_)
            return change([this] { finished_ = true; });
        sentAt_ = moment();
        if (direct && times_.size() % kRun != 0)
            write(Ping, pingBytes_);
        else
            change([&] { slowly_ = {direct ? Ping : SlowPing, pingBytes_}; });
    }
    void writeSlowly() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!ends_) {
            changed_.wait(lock, [this] { return ends_ || slowly_; });
            if (!slowly_)
                continue;
            auto const [kind, bytes] = *std::exchange(slowly_, {});
            lock.unlock();
            if (kind == Ping) {
                std::this_thread::sleep_for(kPause);
                sentAt_ = moment();
            }
            write(kind, bytes);
            lock.lock();
        }
    }
    template <class Change>
    void change(Change const& change) {
        std::lock_guard<std::mutex> const lock(mutex_);
        change();
        changed_.notify_all();
    }
    void fill(std::size_t bytes) {
        piece_.clear();
        static std::vector<unsigned char> const nothing(Link::kMostPieceBytes);
        Link::RecordHead head;
        head.length = static_cast<std::uint32_t>(
            bytes < Link::RecordHead::kBytes ? 0 : bytes - Link::RecordHead::kBytes);
        if (bytes > 0)
            piece_.append(head, nothing.data());
    }
    void write(Kind kind, std::size_t bytes) {
        fill(bytes);
        piece_.head.number = kind;
        writer_->write(piece_);
    }
    template <class Condition>
    bool waitFor(std::chrono::milliseconds time, Condition const& condition) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, time, condition);
    }
    template <class Condition>
    bool await(Condition const& condition) {
        return waitFor(std::chrono::seconds(60), condition);
    }

    Link::UnitInfo own_;
    std::mutex mutex_;
    std::condition_variable changed_;
    Link::UnitInfo other_;                                // guarded by mutex_
    bool seen_ = false;                                   // guarded by mutex_
    bool finished_ = false;                               // guarded by mutex_
    bool ends_ = false;                                   // guarded by mutex_
    std::optional<std::pair<Kind, std::size_t>> slowly_;  // to be written; guarded by mutex_
    std::atomic<bool> heard_{false};
    std::atomic<bool> ready_{false};  // there is a writer

    // Of the one thread that has a piece to write: the two sides take turns.
    Link::Piece piece_;
    std::vector<double> times_;
    std::size_t pingBytes_ = 0;
    double sentAt_ = 0, end_ = 0;

    std::unique_ptr<Link::Bus> bus_;
    std::unique_ptr<Link::BusWriter> writer_;  // ends before the bus
    std::thread slow_;
};

}  // namespace

int bareMain(unsigned char slot) {
    Bare bare(slot);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    for (std::string verb; std::cin >> verb;) {
        if (verb == "meet") {
            std::puts(bare.meet() ? "met" : "late");
        } else if (verb == "ping") {
            double seconds = 0;
            std::size_t bytes = 0;
            bool direct = true;
            std::cin >> seconds >> bytes >> direct;
            bare.ping(seconds, bytes, direct);
        } else if (verb == "stream") {
            unsigned long count = 0;
            std::size_t bytes = 0;
            bool gather = false;
            std::cin >> count >> bytes >> gather;
            bare.stream(count, bytes, gather);
        }
    }
    return 0;
}

}  // namespace bench
