// The time of processes that act for a while, and their turn.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace testsupport {

/** Microseconds of a clock that all processes of the machine share. */
inline long long now() {
    auto const time = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

/** Lets the threads of a program act or rest, as whoever drives it wants it. */
class Turn {
public:
    void go() { set(acting); }
    void end() { set(ended); }
    /** Returns when all threads rest. */
    void rest() {
        set(resting);
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return busy_ == 0; });
    }

    /** Has the calling thread act again and again, when it may; `act` answers how long it rests
     * then. Returns when it is to end. */
    template <class Act>
    void follow(Act const& act) {
        while (begin()) {
            std::chrono::microseconds const pause = act();
            finish();
            std::this_thread::sleep_for(pause);
        }
    }

private:
    enum State { resting, acting, ended };

    void set(State state) {
        std::lock_guard<std::mutex> const lock(mutex_);
        state_ = state;
        changed_.notify_all();
    }
    bool begin() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return state_ != resting; });
        busy_ += state_ == acting;
        return state_ == acting;
    }
    void finish() {
        std::lock_guard<std::mutex> const lock(mutex_);
        --busy_;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    State state_ = resting;  // guarded by mutex_
    unsigned int busy_ = 0;  // guarded by mutex_
};

}  // namespace testsupport
