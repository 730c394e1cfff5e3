#include "platform/transport/local/Hurry.h"

#include <sys/syscall.h>
#include <unistd.h>

#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace Transport {
namespace {

constexpr int kSignal = SIGURG;
constexpr long kPatience = 1'000'000;  // nanoseconds, from one signal to the next

/** A signal that is ignored ends no waiting. */
void notice(int) {}

/** Whether the signal comes to nobody but us. */
bool isOurs() {
    struct sigaction now {};
    if (::sigaction(kSignal, nullptr, &now) != 0 || (now.sa_flags & SA_SIGINFO) != 0)
        return false;
    if (now.sa_handler == notice)
        return true;
    if (now.sa_handler != SIG_DFL)
        return false;
    struct sigaction ours {};
    ours.sa_handler = notice;
    ours.sa_flags = SA_RESTART;
    return ::sigaction(kSignal, &ours, nullptr) == 0;
}

}  // namespace

Hurry::Hurry() {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = kSignal;
    event.sigev_notify_thread_id = static_cast<pid_t>(::syscall(SYS_gettid));
    if (!isOurs() || ::timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0)
        return;
    begun_ = true;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, kSignal);
    ::pthread_sigmask(SIG_UNBLOCK, &signals, &former_);
    itimerspec const often{{0, kPatience}, {0, kPatience}};
    ::timer_settime(timer_, 0, &often, nullptr);
}

Hurry::~Hurry() {
    if (!begun_)
        return;
    ::timer_delete(timer_);
    ::pthread_sigmask(SIG_SETMASK, &former_, nullptr);
}

}  // namespace Transport
