#pragma once

#include <atomic>
#include <cstdint>

#include "oswrap/ConditionVar.h"

namespace OSWrap {

/**
 * Decides, for one waiting place, whether to poll for a short time before going to sleep. Waking a
 * sleeping thread costs tens of microseconds, so a thread whose recent waits were short asks again
 * and again, giving the processor away between two questions (sched_yield), and sleeps only when
 * the answer does not come within about 20 us.
 *
 * Polling stops paying when others need the processors: a yield that takes longer than about 400 us
 * ends it, with a growing back-off. It also ends when it did not pay lately. Setup of the transport
 * can turn it off for the process, and a thread under a real-time policy never polls.
 *
 * Every wait in a call's way uses this class; nothing else in the system polls. An object belongs
 * to one waiting place; its state is statistics only, so several threads may share one (relaxed
 * atomics).
 */
class REFLECTORB_API AdaptiveWait {
public:
    /**
     * Polls until `ready()` answers true or polling does not pay. Call without any lock held;
     * `ready` reads atomics only and must not touch what its signaller may free. True when
     * `ready()` was seen true: the caller then takes its lock and looks for itself, as it does
     * before it sleeps.
     */
    template <class Ready>
    bool poll(Ready&& ready) {
        if (ready())
            return true;
        if (!worthwhile())
            return false;
        Spell spell(*this);
        while (spell.goOn())
            if (ready())
                return spell.succeeded();
        return false;
    }

    /** After a sleep: how long the thread slept in all, which tells whether polling would have
     * paid. */
    void slept(long long nanoseconds);

    /** Turns polling on or off for the whole process (on at start). */
    static void enable(bool on);
    static bool enabled();

private:
    /** One spell of polling: counts yields and watches the clock. */
    class REFLECTORB_API Spell {
    public:
        explicit Spell(AdaptiveWait& place);
        /** Yields the processor; false when the time is up or the yield was too long. */
        bool goOn();
        bool succeeded();

    private:
        AdaptiveWait& place_;
        long long const start_;
        long long last_;
    };

    bool worthwhile();

    std::atomic<std::int32_t> credit_{
        0};  // statistics: grows with short waits, shrinks with long ones
    std::atomic<std::int32_t> backOff_{0};  // waits to let pass without polling
};

}  // namespace OSWrap
