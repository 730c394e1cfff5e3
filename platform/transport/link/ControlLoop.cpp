#include "platform/transport/link/ControlLoop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <limits>
#include <utility>

#include "logging/LineLimit.h"
#include "oswrap/Clock.h"
#include "oswrap/OutOfMemory.h"

namespace Link {
namespace {

constexpr char const* kSource = "LinkControl";
constexpr long long kNever = std::numeric_limits<long long>::max();
constexpr long long kSecond = 1'000'000'000;
constexpr long long kTellEach = 2 * kSecond;  // how the link is, to a manager that only looks on

int signalDescriptor() {
    sigset_t mask;
    sigemptyset(&mask);
    for (int const signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1})
        sigaddset(&mask, signal);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    return signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
}

/** -1: without end. Not less than what is left, so that nobody polls in vain. */
int millisecondsUntil(long long until, long long time) {
    if (until == kNever)
        return -1;
    return static_cast<int>(std::clamp((until - time + 999'999) / 1'000'000, 0LL, 1'000'000LL));
}

}  // namespace

ControlLoop::ControlLoop(ControlListener& listener)
    : listener_(listener),
      signals_(signalDescriptor()),
      work_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      keepAliveAt_(service_.listens() ? 0 : kNever),
      readyAt_(kNever) {}

void ControlLoop::openTo(std::string const& folder) {
    status_ = std::make_unique<StatusSocket>(folder);
}

void ControlLoop::tellReady() {
    long long const time = OSWrap::Clock::nowNanoseconds();
    readyAt_ = service_.tell("READY=1") ? kNever : time + kSecond;
}

void ControlLoop::wake() const {
    eventfd_write(work_.get(), 1);
}

ControlLoop::Waited ControlLoop::waitFor(int milliseconds) {
    return wait(OSWrap::Clock::nowNanoseconds() + milliseconds * 1'000'000LL, Work::Waits);
}

ControlLoop::Waited ControlLoop::waitForWork(int milliseconds) {
    return wait(
        milliseconds < 0 ? kNever : OSWrap::Clock::nowNanoseconds() + milliseconds * 1'000'000LL,
        Work::Wakes);
}

ControlLoop::Waited ControlLoop::wait(long long until, Work work) {
    for (;;) {
        long long const time = OSWrap::Clock::nowNanoseconds();
        OSWrap::withMemory([&] { keepAlive(time); });  // left out, if there is none
        if (time >= readyAt_)
            tellReady();
        if (time >= until)
            return Waited::TimePassed;
        bool const answers = status_ != nullptr && time >= answerAt_;
        long long const next =
            std::min({until, keepAliveAt_, readyAt_, time >= answerAt_ ? kNever : answerAt_});
        pollfd all[] = {{signals_.get(), POLLIN, 0},
                        {answers ? status_->descriptor() : -1, POLLIN, 0},
                        {work == Work::Wakes ? work_.get() : -1, POLLIN, 0}};
        if (poll(all, 3, millisecondsUntil(next, time)) <= 0)
            continue;
        if ((all[0].revents & POLLIN) != 0 && takeSignals())
            return Waited::Ended;
        if ((all[1].revents & POLLIN) != 0)
            answer(time);
        if ((all[2].revents & POLLIN) != 0) {
            eventfd_t count = 0;
            eventfd_read(work_.get(), &count);
            return Waited::Woken;
        }
    }
}

/** True when one of them ends the program. */
bool ControlLoop::takeSignals() {
    signalfd_siginfo info{};
    while (read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo != SIGUSR1)
            return true;
        OSWrap::withMemory([&] { listener_.logFigures(); });
    }
    return false;
}

void ControlLoop::answer(long long time) {
    bool answered = false;
    if (!OSWrap::withMemory([&] { answered = status_->answer(listener_.status()); })) {
        answerAt_ = time + kSecond;
        return;
    }
    if (answered)
        return;
    static Logging::LineLimit limit(1);
    REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                           "no descriptor is left for who asks how this link is");
    answerAt_ = time + kSecond;
}

void ControlLoop::keepAlive(long long time) {
    if (time < keepAliveAt_)
        return;
    bool const isWatched = service_.patience() > 0;
    keepAliveAt_ = time + (isWatched ? service_.patience() / 3 : kTellEach);
    long long const debt = isWatched ? listener_.oldestDebt() : 0;
    if (isWatched && debt > service_.patience() / 2) {
        static Logging::LineLimit limit(1);
        REFLECTORB_LOG_LIMITED(limit, 2, kSource,
                               "a thread has been at one thing for %lld ms: the service manager is "
                               "not told that all is well",
                               debt / 1'000'000);
        return;
    }
    Health const health = listener_.health();
    std::string const status = health.state + ", linked with " + std::to_string(health.linked) +
                               " of " + std::to_string(health.inSight) + " machines in sight";
    if (isWatched)
        service_.tell("WATCHDOG=1\nSTATUS=" + status);
    else
        tellStatus(status);
}

void ControlLoop::tellStatus(std::string const& status) {
    if (toldStatus_ != status && service_.tell("STATUS=" + status))
        toldStatus_ = status;
}

}  // namespace Link
