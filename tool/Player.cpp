#include "Player.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <system_error>
#include <thread>

#include "Units.h"

using namespace std::chrono;

// ---- Progress ----------------------------------------------------------------------------------

std::vector<std::size_t> Progress::left() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    std::vector<std::size_t> left;
    for (std::size_t i = 0; i < isBegun_.size(); ++i) {
        if (!isBegun_[i])
            left.push_back(i);
    }
    return left;
}

void Progress::begin(std::size_t call) {
    std::lock_guard<std::mutex> const lock(mutex_);
    isBegun_[call] = true;
}

void Progress::note(RemadeCall const& remade) {
    std::lock_guard<std::mutex> const lock(mutex_);
    differences_ += !remade.difference.empty();
    if (outcome_ == ExitCode::kDone)
        outcome_ = remade.why;
}

std::size_t Progress::begun() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return static_cast<std::size_t>(std::count(isBegun_.begin(), isBegun_.end(), true));
}

std::size_t Progress::differences() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return differences_;
}

ExitCode Progress::outcome() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return outcome_;
}

// ---- Player ------------------------------------------------------------------------------------

void Player::start() {
    makers_ = 1;
    std::thread([self = shared_from_this()] { self->makeCalls(); }).detach();
    try {
        std::thread([self = shared_from_this()] { self->play(); }).detach();
    } catch (std::system_error const&) {
        lanes_.stop();
        throw;
    }
}

void Player::stop() {
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        isStopped_ = true;
        for (auto& [call, told] : untold_) {
            if (told)
                tellLocked(*told);
        }
    }
    told_.notify_all();
    lanes_.stop();
}

void Player::play() {
    auto const start = steady_clock::now();
    std::vector<std::size_t> const left = progress_.left();
    for (std::size_t const number : left) {
        RecordedCall const& call = calls_[number];
        lanes_.awaitThoseBefore(number);
        if (!awaitTelling() ||
            (manner_.isStepped ? !awaitLine(call) : !awaitTime(call, calls_[left.front()], start)))
            break;
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            untold_[number] = std::nullopt;
        }
        lanes_.add(number);
        addMaker();
    }
    lanes_.finishAll();
    isOver_ = true;
}

/** What is told behind a call that waits is kept until then: a part of the recording, not all of
 * it. False when it is stopped. */
bool Player::awaitTelling() {
    constexpr std::size_t kMost = 1'000;
    std::unique_lock<std::mutex> lock(mutex_);
    told_.wait(lock, [this] { return isStopped_ || untold_.size() < kMost; });
    return !isStopped_;
}

bool Player::awaitTime(RecordedCall const& call, RecordedCall const& first,
                       steady_clock::time_point start) const {
    constexpr milliseconds kNowAndThen(100);
    if (manner_.speed <= 0)
        return true;
    constexpr duration<double, std::micro> kLongest = std::chrono::hours(24 * 365);
    duration<double, std::micro> const recorded(static_cast<double>(call.time) -
                                                static_cast<double>(first.time));
    auto const due = start + duration_cast<steady_clock::duration>(
                                 std::clamp(recorded / manner_.speed, -kLongest, kLongest));
    while (!isStopped_ && steady_clock::now() < due)
        std::this_thread::sleep_until(std::min(due, steady_clock::now() + kNowAndThen));
    return !isStopped_;
}

/** False at the end of standard input, and for a line that begins with q. */
bool Player::awaitLine(RecordedCall const& call) {
    constexpr int kNowAndThen = 100;  // milliseconds
    events_.add(eventOf("next", call, Json::object(), {}));
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (!isStopped_) {
        if (std::cin.rdbuf()->in_avail() == 0 && poll(&input, 1, kNowAndThen) <= 0)
            continue;
        std::string line;
        return std::getline(std::cin, line) && (line.empty() || line[0] != 'q');
    }
    return false;
}

/** Of a thread. Ends when no more calls come, or it is stopped. */
void Player::makeCalls() {
    while (std::optional<std::size_t> const number = lanes_.take()) {
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            if (isStopped_)
                return;
            progress_.begin(*number);
        }
        addMaker();
        Told told = make(calls_[*number]);
        bool const hasTimedOut = told.remade.why == ExitCode::kTimedOut;
        tell(*number, std::move(told));
        lanes_.finish(*number, hasTimedOut);
    }
}

/** If there are calls for one more, and room. */
void Player::addMaker() {
    constexpr std::size_t kMost = 64;
    if (!lanes_.lacksTakers())
        return;
    if (makers_++ < kMost) {
        try {
            std::thread([self = shared_from_this()] { self->makeCalls(); }).detach();
            return;
        } catch (std::system_error const&) {  // those that are there make them
        }
    }
    --makers_;
}

Player::Told Player::make(RecordedCall const& call) {
    Told told{remaker_.remake(call), {}};
    told.events.push_back(eventOf("replayed", call, told.remade.json, told.remade.text));
    std::string const& difference = told.remade.difference;
    if (!difference.empty())
        told.events.push_back(
            eventOf("difference", call, {{"text", difference}}, ": " + difference));
    return told;
}

void Player::tell(std::size_t call, Told told) {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (isStopped_)
        return;
    untold_[call] = std::move(told);
    while (!untold_.empty() && untold_.begin()->second) {
        tellLocked(*untold_.begin()->second);
        untold_.erase(untold_.begin());
    }
    told_.notify_all();
}

void Player::tellLocked(Told& told) {
    progress_.note(told.remade);
    for (Event& event : told.events)
        events_.add(std::move(event));
}

Event Player::eventOf(char const* name, RecordedCall const& call, Json const& more,
                      std::string const& text) {
    Values const arguments = valuesOf(call.arguments);
    Event event;
    event.line = fmt::format("{:10} {}/{}({}){}", name, call.object, call.operation,
                             valuesText(call.argumentTypes, arguments), text);
    event.json = {{"event", name}, {"object", call.object}, {"member", call.operation}};
    event.json["arguments"] = valuesJson(call.argumentTypes, arguments);
    event.json.update(more);
    event.time = timeNow();
    return event;
}
