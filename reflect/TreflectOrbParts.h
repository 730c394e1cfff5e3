#pragma once

#include <atomic>
#include <map>
#include <memory>

#include "reflect/CallGate.h"
#include "reflect/ClassRecord.h"
#include "reflect/MessageQueue.h"
#include "reflect/ObjectRegistry.h"
#include "reflect/PerformanceCounters.h"
#include "reflect/RequestTable.h"
#include "reflect/TreflectORB.h"

/** What a broker is made of. Each part guards itself, or is guarded by the run permission. */
struct TreflectORB::Parts {
    explicit Parts(unsigned int lastTransactionId) : ongoingRequests_(lastTransactionId) {}

    CallGate calls;
    RequestTable ongoingRequests_;
    MessageQueue messageQueue;
    ObjectRegistry objects;        // guarded by the run permission
    PerformanceCounters counters;  // guarded by the run permission
    /// By class id. Guarded by the run permission.
    std::map<unsigned int, ClassRecord> classes;
    /** The thread that last called `receive`; written by it alone, read by callers. */
    std::atomic<unsigned long> receivingThreadId{0};
    /** For the workers, which keep their broker alive. Set before the first of them. */
    std::weak_ptr<TreflectORB> self;
};
