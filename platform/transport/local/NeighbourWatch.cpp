#include "platform/transport/local/NeighbourWatch.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "platform/transport/local/Bell.h"

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434  // the same on all our architectures
#endif

namespace Transport {
namespace {

constexpr std::size_t kNeighbours = 3;
/** How often a process is looked at that the kernel gives no handle for. */
constexpr int kTimedLook = 50;  // milliseconds

/** Handles are close-on-exec by themselves. */
Descriptor openProcess(pid_t pid) {
    return Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

}  // namespace

/** One of another user, which cannot be asked, and one that nobody has waited for, still are. */
bool NeighbourWatch::hasEnded(pid_t pid) {
    return pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH;
}

void NeighbourWatch::prepare() {
    bell_ = makeBell();
}

void NeighbourWatch::wake() const {
    ringBell(bell_.get());
}

std::vector<NeighbourWatch::Suspect> NeighbourWatch::wait() {
    std::vector<pollfd> polled{{bell_.get(), POLLIN, 0}};
    bool timed = !bell_.valid();
    for (Watched const& watched : watched_) {
        polled.push_back({watched.handle.get(), POLLIN, 0});  // negative ones are passed over
        timed = timed || !watched.handle.valid();
    }
    ::poll(polled.data(), polled.size(), timed ? kTimedLook : -1);
    std::uint64_t count = 0;
    static_cast<void>(!::read(bell_.get(), &count, sizeof count));
    std::vector<Suspect> suspects;
    for (std::size_t i = 0; i < watched_.size(); ++i) {
        if (watched_[i].handle.valid() && polled[i + 1].revents == 0)
            continue;
        pid_t const pid = watched_[i].pid;
        suspects.push_back({pid, watched_[i].handle.valid() || hasEnded(pid)});
        // A handle that has told its news would tell it for ever. If the locks say that a process
        // of this id lives on, it is another one, or cannot be trusted: look at it by time.
        watched_[i].handle = Descriptor();
    }
    return suspects;
}

std::vector<pid_t> NeighbourWatch::neighboursAmong(std::vector<pid_t> const& processes) {
    std::vector<pid_t> neighbours;
    pid_t const self = ::getpid();
    auto next = std::upper_bound(processes.begin(), processes.end(), self);
    for (std::size_t i = 0; i < processes.size() && neighbours.size() < kNeighbours; ++i, ++next) {
        if (next == processes.end())
            next = processes.begin();
        if (*next != self)
            neighbours.push_back(*next);
    }
    return neighbours;
}

std::vector<NeighbourWatch::Suspect> NeighbourWatch::choose(std::vector<pid_t> const& neighbours) {
    std::vector<Watched> chosen;
    std::vector<Suspect> fresh;
    // Before handles are taken over, since memory may run out.
    chosen.reserve(neighbours.size());
    fresh.reserve(neighbours.size());
    for (pid_t const pid : neighbours) {
        auto const known = std::find_if(watched_.begin(), watched_.end(),
                                        [&](Watched const& w) { return w.pid == pid; });
        if (known == watched_.end())
            fresh.push_back({pid, hasEnded(pid)});
        chosen.push_back(
            {pid, known == watched_.end() ? openProcess(pid) : std::move(known->handle)});
    }
    watched_ = std::move(chosen);
    return fresh;
}

}  // namespace Transport
