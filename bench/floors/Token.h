#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "floors/Wait.h"

namespace bench {

/** One token, handed from thread to thread in the order in which they asked. */
class Token {
public:
    void take() {
        Waiter self;
        bool near = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!held_) {
                held_ = true;
                return;
            }
            near = first_ == nullptr;
            append(self);
        }
        if (near)
            pollBriefly(Waiting::kPoll, [&] { return self.granted.load(); });
        std::unique_lock<std::mutex> lock(mutex_);
        while (!self.granted)
            self.wake.wait(lock);
    }

    void give() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (first_ == nullptr) {
            held_ = false;
            return;
        }
        Waiter& next = *first_;
        first_ = next.next;
        if (first_ == nullptr)
            last_ = nullptr;
        next.granted = true;
        next.wake.notify_one();
    }

private:
    struct Waiter {
        std::atomic<bool> granted{false};
        std::condition_variable wake;
        Waiter* next = nullptr;
    };

    void append(Waiter& waiter) {
        (last_ != nullptr ? last_->next : first_) = &waiter;
        last_ = &waiter;
    }

    std::mutex mutex_;
    bool held_ = false;        // guarded by mutex_
    Waiter* first_ = nullptr;  // guarded by mutex_
    Waiter* last_ = nullptr;   // guarded by mutex_
};

}  // namespace bench
