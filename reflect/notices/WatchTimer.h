#pragma once

#include <map>
#include <memory>

#include "handler_threads/RunPermission.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/TimeSpec.h"

/**
 * Calls those who have something to tell when the time for it has come, one after the other, under
 * the run permission: watches that hold a value back, and what nobody else is to be kept for. Its
 * thread `ReflectWatch` is started with the first call that is asked for and ends when none is left
 * and the last one has gone that keeps it (Use). One for the process, never destroyed.
 */
class WatchTimer {
public:
    class Due;
    /** Keeps the thread for as long as it lives, once there is one. Any thread. */
    class Use {
    public:
        Use();
        ~Use();
        Use(Use const&) = delete;
        Use& operator=(Use const&) = delete;
    };

    static WatchTimer& instance();

    /** Calls `due` at a time of OSWrap::Clock::getObsTime, once, if it still lives then; false, and
     * a line at level 3, when there is no thread to do it. It has not been asked for yet, or has
     * been called. Needs no memory but for the thread. */
    bool callAt(OSWrap::TimeSpec const& time, Due& due) OSW_REQUIRES_PERMISSION;
    /** The same, at once; `due` lives until then. */
    bool callNow(std::shared_ptr<Due> due) OSW_REQUIRES_PERMISSION;
    /** The same for who must not wait, log or want memory, whatever he holds. There is a Use, for
     * which `callAt` has succeeded, and which stays until then. */
    void callAsServed(Due& due);
    /** It is not called, unless that has begun. */
    void forget(Due& due);

private:
    class Worker;
    using Calls = std::multimap<OSWrap::TimeSpec, Due*>;

    /** The body of the thread. */
    void serve();
    /** Waits for the next call; null when the thread is to end. */
    std::shared_ptr<Due> awaitNext();
    std::shared_ptr<Due> take(Calls::iterator at) OSW_REQUIRES(changed_);
    static void call(std::shared_ptr<Due> due);
    bool insert(OSWrap::TimeSpec const& time, Due& due, std::shared_ptr<Due> kept);

    OSWrap::ConditionVar changed_;  // a leaf
    Calls calls_ OSW_GUARDED_BY(changed_);
    unsigned int uses_ OSW_GUARDED_BY(changed_) = 0;
    // There is a thread, which will look at calls_, or whoever has asked for a call starts it.
    bool runs_ OSW_GUARDED_BY(changed_) = false;
};

/** Who is to be called. Owned by shared pointers. */
class WatchTimer::Due : public std::enable_shared_from_this<Due> {
public:
    Due();
    Due(Due const&) = delete;
    Due& operator=(Due const&) = delete;

    /** Throws nothing but std::bad_alloc. */
    virtual void due() = 0;

protected:
    virtual ~Due();

private:
    friend class WatchTimer;

    // Guarded by the timer's lock.
    Calls::node_type place_;  // its place in the calls while it is not in it
    Calls::iterator at_;      // where it is among them, without place_
    std::shared_ptr<Due> kept_;
};
