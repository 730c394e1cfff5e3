#include "Asking.h"

#include <handler_threads.h>

#include <algorithm>
#include <atomic>

Asking::~Asking() {
    for (std::thread& thread : threads_)
        thread.join();
}

void Asking::giveUp(TreflectOrbId broker) {
    std::lock_guard<std::mutex> const lock(mutex_);
    givenUp_.insert(broker);
}

void Asking::hopeAgain() {
    std::lock_guard<std::mutex> const lock(mutex_);
    givenUp_.clear();
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
    act();
    return deadline.left().count() > 0;
}

void Asking::start(std::size_t count, std::function<void(std::size_t)> ask) {
    constexpr std::size_t kMostThreads = 64;
    auto const next = std::make_shared<std::atomic<std::size_t>>(0);
    std::size_t const threads = std::min(count, kMostThreads);
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        working_ += threads;
    }
    for (std::size_t i = 0; i < threads; ++i) {
        threads_.emplace_back([this, next, count, ask] {
            for (std::size_t number = (*next)++; number < count; number = (*next)++)
                ask(number);
            std::lock_guard<std::mutex> const lock(mutex_);
            --working_;
        });
    }
}
