#include "platform/transport/local/Fork.h"

#include <pthread.h>

#include <atomic>

namespace Transport {
namespace {

std::atomic<bool> forked{false};

void noteFork() {
    forked.store(true, std::memory_order_relaxed);
}

}  // namespace

void watchForForks() {
    static int const registered = pthread_atfork(nullptr, nullptr, noteFork);
    static_cast<void>(registered);
}

bool inForkedChild() {
    return forked.load(std::memory_order_relaxed);
}

}  // namespace Transport
