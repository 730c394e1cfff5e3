#include "platform/transport/local/UnsentCount.h"

#include <algorithm>

#include "oswrap/Clock.h"
#include "oswrap/Lock.h"

namespace Transport {

void UnsentCount::less(std::size_t count) {
    if (count == 0 || count_.fetch_sub(count) != count || sending())
        return;
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    change_.broadcast();
}

void UnsentCount::wait(long long idle, long long most) {
    long long now = OSWrap::Clock::nowNanoseconds();
    long long const end = now + most;
    long long patience = now + idle;
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    for (std::size_t before = count_.load(); !ended_ && before != 0;) {
        long long const left = std::min(patience, end) - now;
        if (left <= 0)
            return;
        change_.wait(OSWrap::TimeSpec(0, left));
        now = OSWrap::Clock::nowNanoseconds();
        std::size_t const count = count_.load();
        if (count < before)
            patience = now + idle;
        before = count;
    }
}

void UnsentCount::end() {
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    ended_ = true;
    change_.broadcast();
}

}  // namespace Transport
