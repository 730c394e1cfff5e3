// Threads and questions that the tests of the run permission share.
#pragma once

#include <pthread.h>

#include <functional>
#include <utility>

#include "Waiting.h"
#include "handler_threads.h"

namespace permissiontest {

using Run = TreflectRunPermission;

/** A thread with one body, that can be cancelled and is joined at the latest by its destructor. */
class TestThread {
public:
    explicit TestThread(std::function<void()> body) : body_(std::move(body)) {
        pthread_create(&handle_, nullptr, enter, this);
    }
    ~TestThread() { join(); }
    TestThread(TestThread const&) = delete;
    TestThread& operator=(TestThread const&) = delete;

    void cancel() { pthread_cancel(handle_); }
    /** Whether the thread ended by cancellation. */
    bool join() {
        if (joined_)
            return cancelled_;
        void* result = nullptr;
        pthread_join(handle_, &result);
        joined_ = true;
        return cancelled_ = result == PTHREAD_CANCELED;
    }

private:
    static void* enter(void* self) {
        static_cast<TestThread*>(self)->body_();
        return nullptr;
    }

    std::function<void()> const body_;
    pthread_t handle_{};
    bool joined_ = false;
    bool cancelled_ = false;
};

/** Whether as many threads come to queue for the permission. */
inline bool queueGrowsTo(unsigned long threads) {
    return testsupport::eventually(
        [threads] { return Run::handlerThreads().getPermissionWaiters() == threads; });
}

/** What every test must leave behind. */
inline bool nothingLeft() {
    return Run::getRunPermissionOwner() == 0 && Run::getRunPermissionCount() == 0 &&
           Run::handlerThreads().size() == 0 && Run::handlerThreads().getPermissionWaiters() == 0;
}

}  // namespace permissiontest
