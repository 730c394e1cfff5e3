#pragma once

#include <map>
#include <memory>
#include <optional>

#include "oswrap/ConditionVar.h"
#include "oswrap/TimeSpec.h"

/**
 * Calls watches when the time has come to tell what they hold back, one after the other, under the
 * run permission. Its thread `ReflectWatch` is started with the first call that is asked for and
 * ends when the last watch has gone that may ask. One for the process, never destroyed. Any thread.
 */
class WatchTimer {
public:
    /** Who is to be called. */
    class Due {
    public:
        virtual void due() = 0;

    protected:
        ~Due() = default;
    };
    /** Keeps the thread for as long as it lives, once there is one. */
    class Use {
    public:
        Use();
        ~Use();
        Use(Use const&) = delete;
        Use& operator=(Use const&) = delete;
    };

    static WatchTimer& instance();

    /** Calls `due` at a time of OSWrap::Clock::getObsTime, if it still lives then; false, and a
     * line at level 3, when there is no thread to do it. Who asks has a Use. */
    bool callAt(OSWrap::TimeSpec const& time, std::weak_ptr<Due> due);

private:
    class Worker;
    using Calls = std::multimap<OSWrap::TimeSpec, std::weak_ptr<Due>>;

    /** The body of the thread. */
    void serve();
    /** Waits for the next call; none when the thread is to end. */
    std::optional<std::weak_ptr<Due>> awaitNext();
    bool startWorker() OSW_REQUIRES(changed_);

    OSWrap::ConditionVar changed_;  // a leaf
    Calls calls_ OSW_GUARDED_BY(changed_);
    unsigned int uses_ OSW_GUARDED_BY(changed_) = 0;
    bool runs_ OSW_GUARDED_BY(changed_) = false;  // there is a thread, which will look at calls_
};
