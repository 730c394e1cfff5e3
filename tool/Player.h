// The calls of a recording, made once more at their times.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CallLanes.h"
#include "Events.h"
#include "RemadeCall.h"

/** How calls are made. */
struct Manner {
    double speed = 1;  // 0: without pauses
    bool isStepped = false;
    bool isChecked = false;
    std::chrono::nanoseconds patience{};
};

/** Which calls have been made, in all sessions, and what has come of them. Any thread. */
class Progress {
public:
    explicit Progress(std::size_t calls) : isBegun_(calls) {}

    /** Those that have not begun. */
    std::vector<std::size_t> left() const;
    void begin(std::size_t call);
    void note(RemadeCall const& remade);
    std::size_t begun() const;
    std::size_t differences() const;
    /** The first failure, in the order of the recording. */
    ExitCode outcome() const;

private:
    mutable std::mutex mutex_;  // a leaf
    // Guarded by mutex_, as all up to the end.
    std::vector<bool> isBegun_;
    std::size_t differences_ = 0;
    ExitCode outcome_ = ExitCode::kDone;
};

/**
 * Makes calls, each at its time, on threads of its own, and tells what has come of them in the
 * order of the recording. Shared with these threads, which may outlast the session while a call
 * waits.
 */
class Player : public std::enable_shared_from_this<Player> {
public:
    /** All but the places outlives it. */
    Player(RecordedCalls const& calls, Manner const& manner, std::map<std::string, Place> places,
           Progress& progress, Events& events)
        : calls_(calls),
          manner_(manner),
          lanes_(calls, manner.patience),
          remaker_(std::move(places), manner.patience, manner.isChecked),
          progress_(progress),
          events_(events) {}

    /** Throws when there are no threads for it. */
    void start();
    /** No other call begins, and of those that wait nothing is told any more. */
    void stop();
    bool isOver() const { return isOver_; }

private:
    /** What is told of a call when those ahead of it have been told. */
    struct Told {
        RemadeCall remade;
        std::vector<Event> events;
    };

    void play();
    bool awaitTelling();
    void makeCalls();
    void addMaker();
    bool awaitTime(RecordedCall const& call, RecordedCall const& first,
                   std::chrono::steady_clock::time_point start) const;
    bool awaitLine(RecordedCall const& call);
    Told make(RecordedCall const& call);
    void tell(std::size_t call, Told told);
    void tellLocked(Told& told);
    static Event eventOf(char const* name, RecordedCall const& call, Json const& more,
                         std::string const& text);

    RecordedCalls const& calls_;
    Manner const manner_;
    CallLanes lanes_;
    Remaker remaker_;
    Progress& progress_;
    Events& events_;
    std::atomic<std::size_t> makers_{0};  // threads that make calls
    std::atomic<bool> isStopped_{false};  // set with mutex_
    std::atomic<bool> isOver_{false};

    std::mutex mutex_;                                   // ahead of those of progress_ and events_
    std::map<std::size_t, std::optional<Told>> untold_;  // guarded by mutex_
    std::condition_variable told_;                       // some of these, or it is stopped
};
