#include "EndSignals.h"

#include <handler_threads.h>

#include <csignal>

namespace {

sigset_t endSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

}  // namespace

void keepEndSignals() {
    sigset_t const signals = endSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool endSignalled() {
    constexpr timespec kTick = {0, 100'000'000};
    TreflectReleaseHandlerState const outside;
    sigset_t const signals = endSignals();
    return sigtimedwait(&signals, nullptr, &kTick) > 0;
}
