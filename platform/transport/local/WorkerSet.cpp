#include "platform/transport/local/WorkerSet.h"

#include <sys/epoll.h>

#include <cerrno>
#include <utility>

#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "platform/transport/local/Bell.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/EventSet.h"

namespace Transport {

bool WorkerSet::open() {
    auto const make = [this] {
        epoll_ = Descriptor(::epoll_create1(EPOLL_CLOEXEC));
        bell_ = makeBell();
        return epoll_.valid() && bell_.valid();
    };
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    bool const made = make() || (errno == EMFILE && raiseDescriptorLimit() && make());
    if (made && ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, bell_.get(), &event) == 0)
        return true;
    int const failure = errno;
    epoll_.reset();
    bell_.reset();
    errno = failure;
    return false;
}

void WorkerSet::watch(int bell, Channel& channel) {
    if (!valid())
        return;
    auto const enter = [&] {
        OSWrap::Lock<> const lock(mutex_);
        channels_[channel.token()] = channel.shared_from_this();
    };
    if (OSWrap::withMemory(enter) && !watchDoorBell(epoll_.get(), bell, channel.token()))
        unwatch(bell, channel.token());
}

/** The bell's file stays the peer's, too, so that closing it does not suffice. */
void WorkerSet::unwatch(int bell, std::uint32_t token) {
    if (!valid())
        return;
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, bell, nullptr);
    std::shared_ptr<Channel> forgotten;  // freed after unlocking
    OSWrap::Lock<> const lock(mutex_);
    auto const found = channels_.find(token);
    if (found == channels_.end())
        return;
    forgotten = std::move(found->second);
    channels_.erase(found);
}

void WorkerSet::wake() const {
    ringBell(bell_.get());
}

std::shared_ptr<Channel> WorkerSet::find(std::uint32_t token) {
    OSWrap::Lock<> const lock(mutex_);
    auto const found = channels_.find(token);
    return found != channels_.end() ? found->second : nullptr;
}

std::size_t WorkerSet::size() {
    OSWrap::Lock<> const lock(mutex_);
    return channels_.size() + 1;
}

int WorkerSet::wait(Patience patience, std::uint32_t (&rung)[kMostAtOnce]) const {
    epoll_event happened[kMostAtOnce];
    int const count =
        ::epoll_wait(epoll_.get(), happened, kMostAtOnce, patience == Patience::Endless ? -1 : 0);
    for (int i = 0; i < count; ++i)
        rung[i] = static_cast<std::uint32_t>(happened[i].data.u64);
    return count > 0 ? count : 0;
}

}  // namespace Transport
