#include "platform/transport/local/ReadingEnd.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

#include "platform/oswrap/CancellationPoint.h"
#include "platform/transport/local/Bell.h"
#include "platform/transport/local/EventSet.h"

namespace Transport {
namespace {

/** Who has been marked so often while leaving leaves the rest to the receiving thread. */
constexpr int kMostLooks = 3;

constexpr long long kMillisecond = 1'000'000;
constexpr long long kSecond = 1'000 * kMillisecond;
constexpr long long kLongest = 60 * kSecond;

struct Sleep {
    int epoll;
    long long nanoseconds;
};

/** To the nanosecond where the system can (Linux 5.11), else to the millisecond above. */
int sleepOn(void* argument) {
    auto const& sleep = *static_cast<Sleep*>(argument);
    epoll_event event{};
#if __GLIBC_PREREQ(2, 35)
    timespec limit{};
    limit.tv_sec = static_cast<time_t>(sleep.nanoseconds / kSecond);
    limit.tv_nsec = static_cast<long>(sleep.nanoseconds % kSecond);
    int const woken = ::epoll_pwait2(sleep.epoll, &event, 1, &limit, nullptr);
    if (woken >= 0 || errno != ENOSYS)
        return woken;
#endif
    return ::epoll_wait(sleep.epoll, &event, 1,
                        static_cast<int>((sleep.nanoseconds + kMillisecond - 1) / kMillisecond));
}

Descriptor makeSet() {
    Descriptor set(::epoll_create1(EPOLL_CLOEXEC));
    if (!set.valid() && errno == EMFILE && raiseDescriptorLimit())
        set = Descriptor(::epoll_create1(EPOLL_CLOEXEC));
    return set;
}

}  // namespace

void ReadingEnd::watch(int ownBell) {
    ownBell_ = ownBell;
    sleepers_ = makeSet();
    if (sleepers_.valid() && !watchDoorBell(sleepers_.get(), ownBell, 0))
        sleepers_.reset();
}

void ReadingEnd::open(ControlPage& own, ControlPage const& peer, RingArea area,
                      std::shared_ptr<PeerShare> share, int peerBell,
                      std::optional<std::uint32_t> placesFrom) {
    reader_.emplace(own, peer, std::move(area), std::move(share), placesFrom);
    peerBell_ = peerBell;
    awaitsRing = false;
    shortages = 0;
}

void ReadingEnd::close() {
    reader_.reset();
    sleepers_.reset();
    ownBell_ = peerBell_ = -1;
}

bool ReadingEnd::claim() {
    Role seen = Role::Free;
    return role_.compare_exchange_strong(seen, Role::Receivers) || seen == Role::Receivers;
}

bool ReadingEnd::demand() {
    Role seen = role_.load();
    while (seen == Role::Free || seen == Role::Held || seen == Role::Rung) {
        Role const next = seen == Role::Free ? Role::Receivers : Role::Wanted;
        if (!role_.compare_exchange_weak(seen, next))
            continue;
        if (next == Role::Wanted)
            ring();  // it may sleep there
        seen = next;
    }
    return seen == Role::Receivers;
}

bool ReadingEnd::tryTake() {
    Role seen = role_.load(std::memory_order_relaxed);
    if (seen != Role::Free || !role_.compare_exchange_strong(seen, Role::Held))
        return false;
    reader_->wakeUp();
    return true;
}

bool ReadingEnd::giveBack() {
    for (int looks = 0; looks < kMostLooks && !awaitsRing; ++looks) {
        reader_->fallAsleep();
        if (reader_->hasData())
            break;
        Role seen = Role::Held;
        if (role_.compare_exchange_strong(seen, Role::Free))
            return true;
        if (seen != Role::Rung || !role_.compare_exchange_strong(seen, Role::Held))
            break;
    }
    handOver();
    return false;
}

bool ReadingEnd::fallAsleep() {
    reader_->fallAsleep();
    if (!reader_->hasData() && !wanted())
        return true;
    reader_->wakeUp();
    return false;
}

void ReadingEnd::sleepAtBell(long long nanoseconds) const {
    Sleep sleep{sleepers_.get(), std::clamp(nanoseconds, 0LL, kLongest)};
    OSWrap::atCancellationPoint(sleepOn, &sleep);
}

bool ReadingEnd::heard() {
    Role seen = role_.load();
    while (seen == Role::Free || seen == Role::Held)
        if (role_.compare_exchange_weak(seen, seen == Role::Free ? Role::Receivers : Role::Rung))
            return seen == Role::Free;
    return seen == Role::Receivers;
}

ReadingEnd::Heard ReadingEnd::heardByWorker() {
    Role seen = role_.load();
    while (seen == Role::Free || seen == Role::Held) {
        bool const isFree = seen == Role::Free;
        if (!role_.compare_exchange_weak(seen, isFree ? Role::Held : Role::Rung))
            continue;
        if (!isFree)
            return Heard::ByHolder;
        reader_->wakeUp();
        return Heard::Taken;
    }
    return seen == Role::Receivers ? Heard::ByReceiver : Heard::ByHolder;
}

void ReadingEnd::ring() const {
    ringDoorBell(ownBell_);
}

}  // namespace Transport
