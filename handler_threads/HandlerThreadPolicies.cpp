// The container policy and the utilities of the handler-thread classes.
#include <execinfo.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "handler_threads/HTUtil.h"
#include "handler_threads/SetContainer.h"
#include "handler_threads/ThreadRecord.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"

using handlerthreads::currentThread;

namespace {

constexpr int kMostFrames = 40;
constexpr int kBacktraceLevel = 5;

// Nothing in the library sets it; a debugger or a debugging build may.
std::atomic<bool> misuseEndsProcess{false};

char const* afterLastSlash(char const* text) {
    char const* const slash = std::strrchr(text, '/');
    return slash ? slash + 1 : text;
}

}  // namespace

unsigned long HTUtil::getCurrentThreadId() {
    return currentThread().id;
}

std::string HTUtil::getName(unsigned long) {
    return {};
}

void HTUtil::printBacktrace(char const* why) {
    if (!Logging::enabled(kBacktraceLevel))
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    void* addresses[kMostFrames];
    int const frames = backtrace(addresses, kMostFrames);
    char** const texts = backtrace_symbols(addresses, frames);
    if (!texts)
        return;
    REFLECTORB_LOG(kBacktraceLevel, "HandlerThreadPolicies", "Backtracing %s", why);
    for (int i = 0; i < frames; ++i)
        REFLECTORB_LOG(kBacktraceLevel, "HandlerThreadPolicies", "BT<%02d> %s", i,
                       afterLastSlash(texts[i]));
    std::free(texts);
}

bool HTUtil::willabort() {
    return misuseEndsProcess.load(std::memory_order_relaxed);
}

void HTUtil::testabort() {}

int afw_htutil_willabort() {
    return HTUtil::willabort() ? 1 : 0;
}

void afw_htutil_testabort() {
    HTUtil::testabort();
}

template <class Debugging>
void SetContainer<Debugging>::init(Debugging) const {
    REFLECTORB_LOG(5, "REFLECT_orb", "ORB HandlerThreads using SetContainer");
}

template <class Debugging>
void SetContainer<Debugging>::add() {
    ++currentThread().handlerStates;
    size_.fetch_add(1, std::memory_order_relaxed);
}

template <class Debugging>
void SetContainer<Debugging>::remove() {
    if (!exist())
        return;
    --currentThread().handlerStates;
    size_.fetch_sub(1, std::memory_order_relaxed);
}

template <class Debugging>
bool SetContainer<Debugging>::exist() const {
    return handlerthreads::threadRecord.handlerStates != 0;
}

template <class Debugging>
unsigned long SetContainer<Debugging>::count() const {
    return handlerthreads::threadRecord.handlerStates;
}

template <class Debugging>
unsigned long SetContainer<Debugging>::size() const {
    return size_.load(std::memory_order_relaxed);
}

template class SetContainer<Debugging_t<1>>;
