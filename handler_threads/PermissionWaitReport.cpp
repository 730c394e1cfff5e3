#include "handler_threads/PermissionWaitReport.h"

#include "handler_threads/HTUtil.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "transport/IdInfo.h"

namespace handlerthreads {
namespace {

// A wait longer than this is given up in a build whose misuse ends the process.
constexpr unsigned long kPatience = 29;  // seconds
constexpr long kMoment = 50'000;         // nanoseconds

char const* actor() {
    return Transport::IdInfo::instance().getActor().c_str();
}

}  // namespace

void PermissionWaitReport::stillWaiting() {
    OSWrap::TimeSpec const now = lookAtClock();
    // A holder that had only just taken the token may not have stored its number at first.
    if (awaitedTid_ == 0)
        awaitedTid_ = holderTid_.load(std::memory_order_relaxed);
    if (now < nextReport_)
        return;
    nextReport_ = now + kInterval;
    if (HTUtil::willabort() && elapsed_ > kPatience)
        giveUp();
    else
        tell();
}

OSWrap::TimeSpec PermissionWaitReport::timeToNextReport() const {
    OSWrap::TimeSpec const now = OSWrap::Clock::getObsTime();
    return now < nextReport_ ? nextReport_ - now : OSWrap::TimeSpec(0, kMoment);
}

void PermissionWaitReport::granted() {
    lookAtClock();
    if (elapsed_ >= 1) {
        OSWrap::DisableCancelStateGuard const noCancel;
        REFLECTORB_LOG(5, "REFLECT_orb",
                       "%s::getRunPermission(thread=%ld) got mutex from thread %ld %s after "
                       "%lus",
                       actor(), currentThread().tid, awaitedTid_, HTUtil::getName(holder_).c_str(),
                       elapsed_);
    }
}

OSWrap::TimeSpec PermissionWaitReport::lookAtClock() {
    OSWrap::TimeSpec const now = OSWrap::Clock::getObsTime();
    elapsed_ = static_cast<unsigned long>((now - start_).seconds());
    return now;
}

void PermissionWaitReport::tell() const {
    OSWrap::DisableCancelStateGuard const noCancel;
    REFLECTORB_LOG(5, "REFLECT_orb",
                   "%s::getRunPermission(thread=%ld) waiting for thread %ld %s since %lus", actor(),
                   currentThread().tid, awaitedTid_, HTUtil::getName(holder_).c_str(), elapsed_);
}

void PermissionWaitReport::giveUp() const {
    OSWrap::DisableCancelStateGuard const noCancel;
    REFLECTORB_LOG(5, "REFLECT_orb",
                   "%s::getRunPermission(thread=%ld) waiting for thread %ld %s since %lus. "
                   "Giving up",
                   actor(), currentThread().tid, awaitedTid_, HTUtil::getName(holder_).c_str(),
                   elapsed_);
    HTUtil::testabort();
}

}  // namespace handlerthreads
