#include "reflect/broker/ReturnedCalls.h"

#include <new>

#include "oswrap/Lock.h"

void ReturnedCalls::add(Transport::TerminationId target) {
    OSWrap::Lock<> const lock(mutex_);
    auto const found = calls_.find(target);
    if (found != calls_.end()) {
        ++found->second;
    } else if (calls_.size() < kMostTargets) {
        try {
            calls_.emplace(target, 1);
        } catch (std::bad_alloc const&) {  // the line that tells of the call remains
        }
    }
}

void ReturnedCalls::moveTo(PerformanceCounters& counters) {
    std::map<Transport::TerminationId, unsigned int> calls;
    {
        OSWrap::Lock<> const lock(mutex_);
        calls.swap(calls_);
    }
    for (auto const& [target, count] : calls)
        counters.of(target).failed += count;
}
