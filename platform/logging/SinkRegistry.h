#pragma once

#include <atomic>

#include "logging/Log.h"

namespace Logging {

/** A sink and the calls of it that are running. Never freed, so that a thread may look at one that
 * has been replaced; reused when nobody is inside. */
struct SinkEntry {
    // Constant while the entry is current or `calls` is above 0.
    Sink sink = nullptr;
    void* context = nullptr;
    std::atomic<int> calls{0};
    int waiters = 0;            // guarded by the registry's mutex: setSink calls that wait for it
    SinkEntry* next = nullptr;  // constant once listed
};

/** Holds the current sink for the length of one call of it. Takes no lock. */
class SinkCall {
public:
    SinkCall();
    ~SinkCall();
    SinkCall(SinkCall const&) = delete;
    SinkCall& operator=(SinkCall const&) = delete;

    void operator()(Record const& record) const { entry_.sink(record, entry_.context); }

    /** Whether the calling thread is inside a sink. */
    static bool running();

private:
    SinkEntry& entry_;
};

}  // namespace Logging
