#include "logging/LineLimit.h"

#include "oswrap/Clock.h"

namespace Logging {
namespace {

constexpr long long kBetweenLines = 1'000'000'000;  // nanoseconds
constexpr long long kQuietTime = 10'000'000'000;

}  // namespace

bool LineLimit::pass(unsigned long& heldBack) {
    long long const now = OSWrap::Clock::nowNanoseconds();
    long long const asked = lastAsked_.exchange(now);
    if (asked == 0 || now - asked >= kQuietTime)
        passed_.store(0);
    bool const first = passed_.load() < first_ && passed_.fetch_add(1) < first_;
    long long next = nextAt_.load();
    if (!first && (now < next || !nextAt_.compare_exchange_strong(next, now + kBetweenLines))) {
        heldBack_.fetch_add(1);
        return false;
    }
    if (first)
        nextAt_.store(now + kBetweenLines);
    heldBack = heldBack_.exchange(0);
    return true;
}

void tellHeldBack(unsigned long count, int level, int line, char const* source) {
    if (count == 0)
        return;
    LogMakeString("%lu lines like this one were held back", count);
    LogDispatch(level, line, source);
}

}  // namespace Logging
