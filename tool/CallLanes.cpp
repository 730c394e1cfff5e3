#include "CallLanes.h"

#include <algorithm>

// How a call ended that has no end in the recording is not known: its caller has waited for it.
bool CallLanes::mayBegin(Lane const& lane, std::size_t call) const {
    return std::none_of(lane.begun.begin(), lane.begun.end(), [&](std::size_t other) {
        return !calls_[other].fate || isOverBefore(other, call);
    });
}

bool CallLanes::isOverBefore(std::size_t call, std::size_t other) const {
    return calls_[call].fate && calls_[call].begunUntilEnd <= calls_[other].position;
}

bool CallLanes::isAnyOverBefore(Lane const& lane, std::size_t call) const {
    auto const isOver = [&](std::size_t other) { return isOverBefore(other, call); };
    return std::any_of(lane.begun.begin(), lane.begun.end(), isOver) ||
           std::any_of(lane.waiting.begin(), lane.waiting.end(), isOver);
}

void CallLanes::awaitThoseBefore(std::size_t call) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto const holdsUp = [&](auto const& lane) {
        return late_.count(lane.first) == 0 && isAnyOverBefore(lane.second, call);
    };
    bool const areOver = changed_.wait_for(lock, patience_, [&] {
        return isStopped_ || std::none_of(lanes_.begin(), lanes_.end(), holdsUp);
    });
    if (areOver)
        return;
    for (auto const& lane : lanes_) {
        if (holdsUp(lane))
            late_.insert(lane.first);
    }
}

void CallLanes::add(std::size_t call) {
    std::lock_guard<std::mutex> const lock(mutex_);
    Lane& lane = lanes_[calls_[call].caller];
    lane.waiting.push_back(call);
    advanceLocked(lane);
}

void CallLanes::advanceLocked(Lane& lane) {
    while (!lane.waiting.empty() && mayBegin(lane, lane.waiting.front())) {
        lane.begun.push_back(lane.waiting.front());
        ready_.push_back(lane.waiting.front());
        lane.waiting.pop_front();
    }
    changed_.notify_all();
}

void CallLanes::finishAll() {
    std::unique_lock<std::mutex> lock(mutex_);
    isClosed_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return isStopped_ || lanes_.empty(); });
}

void CallLanes::stop() {
    std::lock_guard<std::mutex> const lock(mutex_);
    isStopped_ = true;
    changed_.notify_all();
}

std::optional<std::size_t> CallLanes::take() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++idle_;
    changed_.wait(
        lock, [this] { return isStopped_ || !ready_.empty() || (isClosed_ && lanes_.empty()); });
    --idle_;
    if (isStopped_ || ready_.empty())
        return std::nullopt;
    std::size_t const call = ready_.front();
    ready_.pop_front();
    return call;
}

void CallLanes::finish(std::size_t call, bool hasTimedOut) {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (hasTimedOut)
        late_.insert(calls_[call].caller);
    else
        late_.erase(calls_[call].caller);
    auto const lane = lanes_.find(calls_[call].caller);
    std::vector<std::size_t>& begun = lane->second.begun;
    begun.erase(std::find(begun.begin(), begun.end(), call));
    advanceLocked(lane->second);
    if (begun.empty())
        lanes_.erase(lane);
}

bool CallLanes::lacksTakers() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return ready_.size() > idle_;
}
