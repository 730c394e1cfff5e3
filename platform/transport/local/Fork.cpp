#include "platform/transport/local/Fork.h"

#include <pthread.h>

#include <atomic>

namespace Transport {
namespace {

std::atomic<bool> forked{false};

void noteFork() {
    forked.store(true, std::memory_order_relaxed);
}

/** Registers the handler once, when the library is loaded. */
int const registered = pthread_atfork(nullptr, nullptr, noteFork);

}  // namespace

bool inForkedChild() {
    (void)registered;
    return forked.load(std::memory_order_relaxed);
}

}  // namespace Transport
