// The log lines of a wait for the run permission.
#pragma once

#include <atomic>

#include "handler_threads/PermissionWaiter.h"
#include "oswrap/TimeSpec.h"

namespace handlerthreads {

/** The log lines of one wait at the front of the queue. The one waited for is the holder at the
 * wait's beginning: nobody else gets the token before the front. When the waiting thread's work is
 * exchanged, that wait is over and another one begins. Lies on the waiting thread's stack. */
class PermissionWaitReport {
public:
    static constexpr OSWrap::TimeSpec kInterval{1, 0};

    PermissionWaitReport(WaitAtFront const& wait, std::atomic<long> const& holderTid)
        : holder_(wait.holder),
          holderTid_(holderTid),
          awaitedTid_(wait.holderTid),
          start_(wait.since) {}

    /** After a sleep without success. */
    void stillWaiting();
    OSWrap::TimeSpec timeToNextReport() const;
    void granted();

private:
    OSWrap::TimeSpec lookAtClock();
    void tell() const;
    void giveUp() const;

    unsigned long const holder_;
    std::atomic<long> const& holderTid_;
    long awaitedTid_;
    OSWrap::TimeSpec const start_;
    OSWrap::TimeSpec nextReport_ = start_ + kInterval;
    unsigned long elapsed_ = 0;  // whole seconds
};

}  // namespace handlerthreads
