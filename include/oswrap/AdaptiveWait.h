#pragma once

#include <atomic>
#include <cstdint>

#include "oswrap/Clock.h"
#include "oswrap/Export.h"

namespace OSWrap {

/**
 * Decides, for one waiting place, whether to poll for a short time before going to sleep. Waking a
 * sleeping thread costs tens of microseconds, so a thread whose recent waits were short asks again
 * and again, giving the processor away between two questions (sched_yield), and sleeps only when
 * the answer does not come in time: after 10 us in which nobody else wanted the processor, which
 * are burnt for nothing, or after 120 us in which others of the system worked, perhaps on the
 * answer.
 *
 * Polling stops paying when the waits are long, and when others need the processors:
 * - A place whose polls keep failing, or succeed later than a sleep would have, lets waits pass
 * without polling, 8 at first, then twice as many each time up to 1,024, and then tries once. So
 * calls at a slow pace cost next to nothing more. Short sleeps reported by `slept` bring the next
 * try nearer.
 * - Two yields of more than 2 ms close to each other mean that another program computes on this
 * processor; one alone may be chance, or many threads of our own. They end polling in the whole
 * process for 10 ms, then for twice as long each time up to a second, and for 10 ms again when
 * there was none of these for long.
 * - A thread under a real-time policy never polls: its yields would keep all others out.
 * - The process can turn polling off (`enable`).
 *
 * Every wait in a call's way uses this class; nothing else in the system polls. An object belongs
 * to one waiting place (a receiving thread, a workers' queue, a caller's record), wherever its
 * threads come from; its state is statistics only, so several threads may share one. The usual
 * form:
 *
 *     place.poll([&] { return arrived.load(); });
 *     Lock<ConditionVar> lock(condition);
 *     if (!arrivedLocked()) {
 *         AdaptiveWait::Sleep const sleep(place);
 *         while (!arrivedLocked())
 *             condition.wait(TimeSpec::INFINITETIME);
 *     }
 *
 * The signaller stores what `ready` reads before it signals, and signals with the lock held, or
 * after unlocking where the condition variable is never freed; a signal that finds nobody asleep
 * makes no system call.
 */
class REFLECTORB_API AdaptiveWait {
public:
    /** Reports to `slept`, at its end, the time since it was made: the length of a sleep. */
    class Sleep {
    public:
        /** Begins now; make it with the lock held, just before the wait. */
        explicit Sleep(AdaptiveWait& place) : place_(place), start_(Clock::nowNanoseconds()) {}
        ~Sleep() { place_.slept(Clock::nowNanoseconds() - start_); }
        Sleep(Sleep const&) = delete;
        Sleep& operator=(Sleep const&) = delete;

    private:
        AdaptiveWait& place_;
        long long const start_;
    };

    /**
     * Polls until `ready()` answers true or polling does not pay. Call without any lock held;
     * `ready` reads atomics only and must not touch what its signaller may free. True when
     * `ready()` was seen true: the caller then takes its lock and looks for itself, as it does
     * before it sleeps. No cancellation point.
     */
    template <class Ready>
    bool poll(Ready&& ready) {
        if (ready())
            return true;
        if (!worthwhile())
            return false;
        Spell spell(*this);
        while (spell.goOn())
            if (ready()) {
                spell.answered();
                return true;
            }
        return false;
    }

    /** After a sleep: how long it lasted in all, until the thread ran again. Tells whether polling
     * could have paid. Class Sleep does this. */
    void slept(long long nanoseconds);

    /** Turns polling on or off for the whole process (on at start). Any thread, any time. */
    static void enable(bool on);
    static bool enabled();

private:
    /** One spell of polling: yields and watches the clock. */
    class REFLECTORB_API Spell {
    public:
        explicit Spell(AdaptiveWait& place)
            : place_(place), start_(Clock::nowNanoseconds()), last_(start_) {}
        /** Yields the processor; false, and the poll has failed, when the time is up. */
        bool goOn();
        /** Ends the spell when the answer has come. */
        void answered();

    private:
        AdaptiveWait& place_;
        long long const start_;
        long long last_;       // when the latest yield was over
        long long burnt_ = 0;  // time of yields that nobody took
    };

    static constexpr std::int32_t kMostCredit = 8;
    static constexpr std::int32_t kLeastSkip = 8;

    bool worthwhile();
    void succeeded();
    void failed(std::int32_t weight);

    // Statistics: relaxed, and an update that gets lost in a race does not matter.
    std::atomic<std::int32_t> credit_{kMostCredit};   // failures to bear until waits are skipped
    std::atomic<std::int32_t> skip_{0};               // waits to let pass without polling
    std::atomic<std::int32_t> nextSkip_{kLeastSkip};  // what skip_ becomes at the next failure
};

}  // namespace OSWrap
