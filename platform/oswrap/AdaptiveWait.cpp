#include "oswrap/AdaptiveWait.h"

#include <sched.h>

#include <algorithm>

namespace OSWrap {
namespace {

// Four hand-overs between two processes on two processors took 6 us when all their waiters polled,
// 15 to 60 us when all slept, depending on how deep the processors sleep.
// All in nanoseconds. What a yield that nobody takes and one that somebody takes cost depends on
// the processor, within a factor of two or three; the line between them lies well above the former.
constexpr long long kMostBurnt = 10'000;
constexpr long long kMostPolled = 120'000;
constexpr long long kLoneYield = 2'000;
constexpr long long kLongYield = 2'000'000;
constexpr long long kShortSleep = 150'000;  // what a wait takes when all its peers sleep too
constexpr std::int32_t kMostSkip = 1024;
constexpr std::int32_t kSuspicious = 32;    // yields for which a long one is remembered
constexpr std::uint32_t kLeastPause = 10;   // ms
constexpr std::uint32_t kMostPause = 1000;  // ms
constexpr std::uint32_t kCalm = 8;          // pauses without long yields until all is forgotten

std::atomic<bool> allowed{true};

/** Keeps the process from polling while others need the processors. Times are milliseconds of the
 * monotonic clock modulo 2^32, so that all machines have atomics of their width. */
class BusyPause {
public:
    /** After each yield. */
    void yielded(long long now, bool tookLong) {
        std::int32_t const suspicion = suspicion_.load(std::memory_order_relaxed);
        if (!tookLong) {
            if (suspicion > 0)
                suspicion_.store(suspicion - 1, std::memory_order_relaxed);
            return;
        }
        suspicion_.store(suspicion > 0 ? 0 : kSuspicious, std::memory_order_relaxed);
        if (suspicion > 0)
            begin(now);
    }
    bool running() {
        if (!on_.load(std::memory_order_relaxed))
            return false;
        std::uint32_t const passed =
            milliseconds(Clock::nowNanoseconds()) - start_.load(std::memory_order_relaxed);
        if (passed < length_.load(std::memory_order_relaxed))
            return true;
        on_.store(false, std::memory_order_relaxed);
        return false;
    }

private:
    static std::uint32_t milliseconds(long long now) {
        return static_cast<std::uint32_t>(now / 1'000'000);
    }

    void begin(long long now) {
        std::uint32_t const start = milliseconds(now);
        std::uint32_t const length = length_.load(std::memory_order_relaxed);
        bool const calm = start - start_.load(std::memory_order_relaxed) > kCalm * length;
        length_.store(calm || length == 0 ? kLeastPause : std::min(2 * length, kMostPause),
                      std::memory_order_relaxed);
        start_.store(start, std::memory_order_relaxed);
        on_.store(true, std::memory_order_relaxed);
    }

    std::atomic<std::int32_t> suspicion_{0};  // yields until a long one is forgotten
    std::atomic<bool> on_{false};
    std::atomic<std::uint32_t> start_{0};
    std::atomic<std::uint32_t> length_{0};
};

BusyPause busyPause;

/** Whether the calling thread has an ordinary scheduling policy. The answer is remembered and asked
 * for again from time to time, since anybody may change a thread's policy. */
bool runsUnderOrdinaryPolicy() {
    constexpr int kAnswersPerQuestion = 256;
    thread_local int left = 0;
    thread_local bool ordinary = false;
    if (--left < 0) {
        int const policy = sched_getscheduler(0);
        ordinary = policy == SCHED_OTHER || policy == SCHED_BATCH;
        left = kAnswersPerQuestion;
    }
    return ordinary;
}

}  // namespace

bool AdaptiveWait::worthwhile() {
    std::int32_t const skip = skip_.load(std::memory_order_relaxed);
    if (skip > 0) {
        skip_.store(skip - 1, std::memory_order_relaxed);
        return false;
    }
    return enabled() && !busyPause.running() && runsUnderOrdinaryPolicy();
}

bool AdaptiveWait::Spell::goOn() {
    if (burnt_ >= kMostBurnt || last_ - start_ >= kMostPolled) {
        place_.failed(1);
        return false;
    }
    sched_yield();
    long long const now = Clock::nowNanoseconds();
    busyPause.yielded(now, now - last_ >= kLongYield);
    if (now - last_ < kLoneYield)
        burnt_ += now - last_;
    last_ = now;
    return true;  // also after a long yield: the answer may have come meanwhile
}

void AdaptiveWait::Spell::answered() {
    if (last_ - start_ < kShortSleep)
        place_.succeeded();
    else
        place_.failed(1);
}

void AdaptiveWait::succeeded() {
    credit_.store(kMostCredit, std::memory_order_relaxed);
    nextSkip_.store(kLeastSkip, std::memory_order_relaxed);
}

void AdaptiveWait::failed(std::int32_t weight) {
    std::int32_t const credit = credit_.load(std::memory_order_relaxed) - weight;
    if (credit > 0) {
        credit_.store(credit, std::memory_order_relaxed);
        return;
    }
    std::int32_t const skip = nextSkip_.load(std::memory_order_relaxed);
    credit_.store(1, std::memory_order_relaxed);
    skip_.store(skip, std::memory_order_relaxed);
    nextSkip_.store(std::min(2 * skip, kMostSkip), std::memory_order_relaxed);
}

void AdaptiveWait::slept(long long nanoseconds) {
    std::int32_t const skip = skip_.load(std::memory_order_relaxed);
    if (nanoseconds > kShortSleep) {
        if (skip == 0)
            failed(2);
    } else if (skip > 0) {
        skip_.store(skip - skip / 16 - 1, std::memory_order_relaxed);
        if (skip == 1)
            credit_.store(kMostCredit, std::memory_order_relaxed);
    }
}

void AdaptiveWait::enable(bool on) {
    allowed.store(on, std::memory_order_relaxed);
}

bool AdaptiveWait::enabled() {
    return allowed.load(std::memory_order_relaxed);
}

}  // namespace OSWrap
