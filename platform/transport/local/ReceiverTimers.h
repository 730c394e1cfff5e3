#pragma once

#include <algorithm>
#include <atomic>
#include <climits>
#include <utility>

#include "oswrap/Clock.h"

namespace Transport {

/** When a receiving thread has something to do by itself. Nanoseconds of OSWrap::Clock; used by
 * that thread alone. */
class ReceiverTimers {
public:
    /** For channels without traffic. */
    enum class IdleLook { None, Usual, ForDescriptors };
    struct Due {
        bool something;
        IdleLook idleLook;
    };

    /** Something is due at that time, if nothing is due earlier. */
    void at(long long time) { next_ = std::min(next_, time); }
    /** A channel is connected: looks for idle ones begin, unless they have. */
    void beginIdleLooks() {
        if (idleLook_ == kNever)
            idleLookFrom(OSWrap::Clock::nowNanoseconds());
    }
    void idleLookFrom(long long now) { idleLook_ = now + interval_.load(); }
    /** Somebody waits for descriptors, which idle channels have: looks for these come sooner. */
    void hurryIdleLook(long long now) {
        if (idleLook_ == kNever)
            return;
        idleLook_ = std::min(idleLook_, now + kHurriedInterval);
        forDescriptors_ = true;
    }
    static constexpr long long kNever = LLONG_MAX;
    /** When something is due; kNever: not at all. */
    long long due() const { return std::min(next_, idleLook_); }
    /** Milliseconds until such a time; -1: it never comes. */
    static int timeout(long long due) {
        if (due == kNever)
            return -1;
        long long const left = due - OSWrap::Clock::nowNanoseconds();
        return left <= 0 ? 0 : static_cast<int>(std::min(left / 1'000'000 + 1, 60'000LL));
    }
    bool running() const { return due() != kNever; }
    /** What is due now. Whoever serves it sets the times anew. */
    Due take(long long now) {
        bool const look = now >= idleLook_;
        if (now < next_ && !look)
            return {false, IdleLook::None};
        next_ = kNever;
        if (!look)
            return {true, IdleLook::None};
        idleLook_ = kNever;
        return {true,
                std::exchange(forDescriptors_, false) ? IdleLook::ForDescriptors : IdleLook::Usual};
    }

    /** Time between two looks for idle channels. */
    static void idleLookInterval(long long nanoseconds) { interval_.store(nanoseconds); }

private:
    /** Channels without traffic in two of these are given back. */
    inline static std::atomic<long long> interval_{30'000'000'000};
    static constexpr long long kHurriedInterval = 50'000'000;

    long long next_ = kNever;
    long long idleLook_ = kNever;  // never, while no channel is connected
    bool forDescriptors_ = false;  // the next look
};

}  // namespace Transport
