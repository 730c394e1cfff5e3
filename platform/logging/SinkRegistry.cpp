#include "SinkRegistry.h"

#include <time.h>

#include "StandardErrorSink.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Lock.h"

namespace Logging {
namespace {

SinkEntry firstEntry{&standardErrorSink, nullptr, {0}, 0, nullptr};
std::atomic<SinkEntry*> current{&firstEntry};
SinkEntry* entries = &firstEntry;  // guarded by the registry's mutex

/** The entry whose sink the calling thread is inside of. */
thread_local SinkEntry const* inside = nullptr;

/** Guards the list of entries and the change of `current`; a leaf, never held during a call. Never
 * destroyed, because threads log until the process has ended. */
OSWrap::Mutex& registryMutex() {
    static OSWrap::Mutex& mutex = *new OSWrap::Mutex;
    return mutex;
}

/**
 * Counts a call in, then looks whether the entry is still the current one. setSink changes
 * `current` first and then looks at the count, so with sequentially consistent operations either
 * this call sees the change, or setSink sees the call.
 */
SinkEntry& enterCurrent() {
    for (;;) {
        SinkEntry& entry = *current.load();
        entry.calls.fetch_add(1);
        if (current.load() == &entry)
            return entry;
        entry.calls.fetch_sub(1);
    }
}

/** An entry that is neither current nor in use. Call with the registry's mutex locked. */
SinkEntry& freeEntryLocked() {
    for (SinkEntry* entry = entries; entry != nullptr; entry = entry->next)
        if (entry != current.load() && entry->waiters == 0 && entry->calls.load() == 0)
            return *entry;
    auto* const fresh = new SinkEntry;
    fresh->next = entries;
    entries = fresh;
    return *fresh;
}

/** Makes a sink the current one and answers the entry it replaces, with this waiter counted in. */
SinkEntry& replaceCurrent(Sink sink, void* context) {
    OSWrap::Lock<> const lock(registryMutex());
    SinkEntry& fresh = freeEntryLocked();
    fresh.sink = sink;
    fresh.context = context;
    SinkEntry& former = *current.exchange(&fresh);
    ++former.waiters;
    return former;
}

/** Replacing a sink is rare and calls are short: looking again and again costs less than a signal
 * at the end of every call would. */
void waitForCalls(SinkEntry const& entry) {
    OSWrap::DisableCancelStateGuard const noCancel;
    timespec const pause{0, 100'000};
    while (entry.calls.load() != 0)
        nanosleep(&pause, nullptr);
}

}  // namespace

SinkCall::SinkCall() : entry_(enterCurrent()) {
    inside = &entry_;
}

SinkCall::~SinkCall() {
    inside = nullptr;
    entry_.calls.fetch_sub(1);
}

bool SinkCall::running() {
    return inside != nullptr;
}

void setSink(Sink sink, void* context) {
    SinkEntry& former = sink != nullptr ? replaceCurrent(sink, context)
                                        : replaceCurrent(&standardErrorSink, nullptr);
    if (inside != &former)
        waitForCalls(former);
    OSWrap::Lock<> const lock(registryMutex());
    --former.waiters;
}

}  // namespace Logging
