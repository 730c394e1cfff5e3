// Threads, forked children and locks of tests.
#pragma once

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>

namespace testsupport {

/** States of the threads of a process that have this name, as the kernel tells them: 'S' sleeps. */
inline std::string statesOfThreads(std::string const& name, pid_t pid = ::getpid()) {
    std::string states;
    std::error_code gone;
    for (auto const& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", gone)) {
        std::string line;
        std::getline(std::ifstream(task.path() / "stat"), line);
        std::string const mark = " (" + name + ") ";
        if (std::size_t const at = line.find(mark); at != std::string::npos)
            states += line[at + mark.size()];
    }
    return states;
}

/** Tells that its scope was left, by return or by cancellation. */
struct Mark {
    std::atomic<bool>& left;
    ~Mark() { left = true; }
};

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

/** So many threads with one body, which takes their number; joined like a single one. */
class TestThreads {
public:
    template <class Body>
    TestThreads(std::size_t count, Body const& body) {
        for (std::size_t i = 0; i < count; ++i)
            threads_.emplace_back([body, i] { body(i); });
    }

    TestThread& front() { return threads_.front(); }
    void cancel() {
        for (TestThread& thread : threads_)
            thread.cancel();
    }
    void join() { threads_.clear(); }

private:
    std::deque<TestThread> threads_;
};

/** Whether a forked child finds that something holds. */
template <class Condition>
bool holdsInForkedChild(Condition const& condition) {
    pid_t const child = ::fork();
    if (child == 0)
        ::_exit(condition() ? 0 : 1);
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

/** Whether nobody has a mutex, or the like. */
template <class Lockable>
bool isFree(Lockable& lockable) {
    bool const locked = lockable.trylock();
    if (locked)
        lockable.unlock();
    return locked;
}

}  // namespace testsupport
