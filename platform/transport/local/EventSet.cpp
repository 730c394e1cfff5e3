#include "platform/transport/local/EventSet.h"

#include <sys/epoll.h>

#include <cerrno>

#include "platform/transport/local/Bell.h"

namespace Transport {
namespace {

constexpr unsigned kSourceBits = 2;
constexpr std::uint32_t kSourceMask = (1U << kSourceBits) - 1;

/** Bells are not read: each ring is an event of its own. */
std::uint32_t interest(EventSet::Source source) {
    switch (source) {
        case EventSet::Source::Bell:
            return EPOLLIN | EPOLLOUT | EPOLLET;
        case EventSet::Source::WakeUp:
            return EPOLLIN | EPOLLET;
        default:
            return EPOLLIN;
    }
}

}  // namespace

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
    epoll_event event{};
    event.events = interest(source);
    event.data.u64 =
        static_cast<std::uint64_t>(token) << kSourceBits | static_cast<std::uint32_t>(source);
    return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
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
