#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace testsupport {

/** How long a test waits for what must come: far beyond what a busy machine needs. */
constexpr std::chrono::seconds kPatience{30};

/** Asks `condition` every millisecond until it holds; false when the limit has passed first. */
template <class Condition>
bool eventually(Condition&& condition, std::chrono::milliseconds limit = kPatience) {
    auto const end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/** The same for a condition that is written out, in a test. */
#define EXPECT_SOON(...) EXPECT_TRUE(testsupport::eventually([&] { return __VA_ARGS__; }))
#define ASSERT_SOON(...) ASSERT_TRUE(testsupport::eventually([&] { return __VA_ARGS__; }))

/**
 * A gate that one thread opens and others wait at. Not for a thread that is to be cancelled while
 * it waits: the standard library's wait does not let a cancellation pass.
 */
class Gate {
public:
    void open() {
        std::lock_guard<std::mutex> const lock(mutex_);
        open_ = true;
        opened_.notify_all();
    }
    /** False when the limit has passed first. */
    bool wait(std::chrono::milliseconds limit = kPatience) {
        std::unique_lock<std::mutex> lock(mutex_);
        return opened_.wait_for(lock, limit, [this] { return open_; });
    }
    bool isOpen() {
        std::lock_guard<std::mutex> const lock(mutex_);
        return open_;
    }

private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;  // guarded by mutex_
};

}  // namespace testsupport
