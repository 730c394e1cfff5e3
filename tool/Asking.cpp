#include "Asking.h"

#include <handler_threads.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <system_error>

namespace {

/** Where a subcommand goes on until it is told to end, that signal waits until it looks for it. */
bool isEndWanted() {
    sigset_t waiting;
    sigpending(&waiting);
    int const ends[] = {SIGINT, SIGTERM, SIGHUP, SIGTSTP};
    return std::any_of(std::begin(ends), std::end(ends),
                       [&](int signal) { return sigismember(&waiting, signal) == 1; });
}

}  // namespace

Asking::~Asking() {
    for (Worker& worker : workers_)
        worker.thread.join();
}

void Asking::giveUp(TreflectOrbId broker) {
    std::lock_guard<std::mutex> const lock(mutex_);
    givenUp_.insert(broker);
}

void Asking::hopeAgain() {
    std::lock_guard<std::mutex> const lock(mutex_);
    givenUp_.clear();
}

void Asking::hopeAgain(TreflectOrbId broker) {
    std::lock_guard<std::mutex> const lock(mutex_);
    givenUp_.erase(broker);
}

bool Asking::isGivenUp(TreflectOrbId broker) const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return givenUp_.count(broker) != 0;
}

bool Asking::isBusy() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return working_ != 0;
}

bool Asking::within(std::function<void()> const& act) const {
    TreflectHandlerState const inside(true);
    TreflectDeadline const deadline(patience_);
    try {
        act();
    } catch (std::exception const&) {
        return true;  // such as a want of memory for what has been answered: a failure
    }
    return deadline.left().count() > 0;
}

void Asking::start(std::size_t count, std::function<void(std::size_t)> ask) {
    constexpr std::size_t kMostThreads = 64;
    joinThoseOver();
    auto const next = std::make_shared<std::atomic<std::size_t>>(0);
    auto const work = [next, count, ask] {
        for (std::size_t number = (*next)++; number < count; number = (*next)++)
            ask(number);
    };
    std::size_t const wanted = std::min(count, kMostThreads);
    std::size_t started = 0;
    while (started < wanted && startWorker(work))
        ++started;
    if (started == 0)
        work();
}

bool Asking::startWorker(std::function<void()> const& work) {
    auto const isOver = std::make_shared<std::atomic<bool>>(false);
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        ++working_;
    }
    auto const end = [this, isOver] {
        std::lock_guard<std::mutex> const lock(mutex_);
        --working_;
        *isOver = true;
    };
    try {
        workers_.push_back({std::thread([work, end] {
                                work();
                                end();
                            }),
                            isOver});
    } catch (std::system_error const&) {
        end();
        return false;
    }
    return true;
}

void Asking::awaitRound(std::unique_lock<std::mutex>& lock, std::size_t const& pending,
                        bool const& enough) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::seconds kGrace(2);  // behind a deadline, on a busy machine
    constexpr std::chrono::milliseconds kMoment(100);
    std::size_t before = pending;
    auto end = Clock::now() + patience_ + kGrace;
    while (pending > 0 && !enough && Clock::now() < end && !isEndWanted()) {
        changed_.wait_for(lock, kMoment);
        if (pending == before)
            continue;
        before = pending;
        end = Clock::now() + patience_ + kGrace;
    }
}

// A thread that is not joined keeps its stack.
void Asking::joinThoseOver() {
    workers_.remove_if([](Worker& worker) {
        if (!*worker.isOver)
            return false;
        worker.thread.join();
        return true;
    });
}
