#include "platform/transport/local/EventSet.h"

#include <sys/epoll.h>

#include <cerrno>

#include "platform/transport/local/Bell.h"

namespace Transport {
namespace {

constexpr unsigned kSourceBits = 2;
constexpr std::uint32_t kSourceMask = (1U << kSourceBits) - 1;

bool add(int epoll, int fd, std::uint32_t interest, std::uint64_t data) {
    epoll_event event{};
    event.events = interest;
    event.data.u64 = data;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

/** Bells are not read: each ring is an event of its own. A kernel that cannot wake one set only
 * (before Linux 4.5) wakes all. */
bool watchDoorBell(int epoll, int bell, std::uint64_t data) {
    constexpr std::uint32_t kRing = EPOLLIN | EPOLLOUT | EPOLLET;
    return add(epoll, bell, kRing | EPOLLEXCLUSIVE, data) ||
           (errno == EINVAL && add(epoll, bell, kRing, data));
}

bool EventSet::open() {
    auto make = [this] {
        epoll_ = Descriptor(::epoll_create1(EPOLL_CLOEXEC));
        bell_ = makeBell();
        return epoll_.valid() && bell_.valid();
    };
    bool const made = make() || (errno == EMFILE && raiseDescriptorLimit() && make());
    return made && watch(bell_.get(), 0, Source::WakeUp);
}

bool EventSet::watch(int fd, std::uint32_t token, Source source) {
    std::uint64_t const data =
        static_cast<std::uint64_t>(token) << kSourceBits | static_cast<std::uint32_t>(source);
    if (source == Source::Bell)
        return watchDoorBell(epoll_.get(), fd, data);
    return add(epoll_.get(), fd, source == Source::WakeUp ? EPOLLIN | EPOLLET : EPOLLIN, data);
}

void EventSet::unwatch(int fd) {
    if (fd >= 0)
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void EventSet::wake() {
    attention_.store(true);
    if (asleep_.load() && asleep_.exchange(false))
        ringBell(bell_.get());
}

bool EventSet::takeAttention() {
    if (!attention_.load())
        return false;
    attention_.store(false);
    return true;
}

int EventSet::wait(int timeoutMilliseconds, Event (&events)[kMostAtOnce]) {
    epoll_event happened[kMostAtOnce];
    int const count = ::epoll_wait(epoll_.get(), happened, kMostAtOnce, timeoutMilliseconds);
    asleep_.store(false);
    for (int i = 0; i < count; ++i) {
        std::uint64_t const data = happened[i].data.u64;
        events[i] = {static_cast<std::uint32_t>(data >> kSourceBits),
                     static_cast<Source>(data & kSourceMask)};
    }
    return count;
}

}  // namespace Transport
