#include "Journal.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "Failure.h"
#include "Units.h"

namespace {

constexpr std::chrono::milliseconds kPause(10);  // after which the thread looks for records

}  // namespace

Journal::Journal(std::string path, Limits limits) : path_(std::move(path)), limits_(limits) {
    open();
    if (!failure_.empty())
        throw Failure(ExitCode::kNoAccess, failure_);
    writer_ = std::thread([this] { serve(); });
    writer_.detach();
}

void Journal::add(recording::Record record, std::size_t bytes) {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (isPaused_ || !failure_.empty())
        return;
    bool const hasRoom = waiting_.size() < kMostRecords && waitingBytes_ + bytes <= kMostBytes;
    if (!hasRoom) {
        ++lost_;
        ++counts_.lost;
        return;
    }
    if (lost_ > 0)
        waiting_.emplace_back(recording::Lost{timeNow(), std::exchange(lost_, 0)});
    count(record);
    waiting_.push_back(std::move(record));
    waitingBytes_ += bytes;
}

void Journal::addToHead(recording::Record const& record) {
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        head_.push_back(record);
    }
    add(record);
}

void Journal::addGone(unsigned int object) {
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        head_.erase(std::remove_if(head_.begin(), head_.end(),
                                   [object](recording::Record const& record) {
                                       auto const* const one =
                                           std::get_if<recording::Object>(&record);
                                       return one && one->number == object;
                                   }),
                    head_.end());
    }
    add(recording::Gone{timeNow(), object});
}

void Journal::count(recording::Record const& record) {
    counts_.calls += std::holds_alternative<recording::Call>(record);
    counts_.values += std::holds_alternative<recording::Value>(record);
}

void Journal::pause() {
    std::unique_lock<std::mutex> lock(mutex_);
    isPaused_ = true;
    if (lost_ > 0)
        waiting_.emplace_back(recording::Lost{timeNow(), std::exchange(lost_, 0)});
    waiting_.emplace_back(recording::Finish{timeNow()});
    changed_.notify_all();
    changed_.wait(lock, [this] { return (waiting_.empty() && !isWriting_) || !failure_.empty(); });
    head_.clear();  // not before: a file may have become full up to here
}

void Journal::resume() {
    std::lock_guard<std::mutex> const lock(mutex_);
    isPaused_ = false;
}

std::string Journal::failure() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return failure_;
}

Journal::Counts Journal::counts() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return counts_;
}

// ---- The thread --------------------------------------------------------------------------------

void Journal::serve() {
    for (;;) {
        Records records;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            isWriting_ = false;
            changed_.notify_all();
            // Who leaves a record is not to wake anybody, which costs him more than all else.
            while (waiting_.empty() || !failure_.empty())
                changed_.wait_for(lock, kPause);
            records.swap(waiting_);
            waitingBytes_ = 0;
            isWriting_ = true;
        }
        write(records);
    }
}

void Journal::write(Records const& records) {
    for (recording::Record const& record : records) {
        if (!failure().empty())
            return;
        // For its end alone no file is put aside.
        if (limits_.bytes > 0 && written_ >= limits_.bytes &&
            !std::holds_alternative<recording::Finish>(record))
            rotate();
        if (file_)
            append(record);
    }
    file_.flush();
    if (!file_ && failure().empty())
        fail("write");
}

void Journal::append(recording::Record const& record) {
    std::string bytes = recording::encode(record);
    if (bytes.empty()) {  // too large for a record
        bytes = recording::encode(recording::Lost{timeNow(), 1});
        std::lock_guard<std::mutex> const lock(mutex_);
        ++counts_.lost;
    }
    file_ << bytes;
    written_ += bytes.size();
}

void Journal::open() {
    file_.open(path_, std::ios::binary | std::ios::trunc);
    written_ = 0;
    file_.write(recording::kMark, recording::kMarkSize);
    append(recording::Begin{recording::kVersion, timeNow(), "reflectorb " REFLECTORB_VERSION});
    file_.flush();
    if (!file_)
        fail("open");
}

// Of the names that are in the way, the last one's file is replaced.
void Journal::rotate() {
    file_.close();
    if (!file_)
        return fail("write");
    auto const name = [this](unsigned int number) {
        return number == 0 ? path_ : path_ + "." + std::to_string(number);
    };
    for (unsigned int number = limits_.files; number-- > 1;)
        std::rename(name(number - 1).c_str(), name(number).c_str());
    open();
    Records head;
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        head = head_;
    }
    for (recording::Record const& record : head)
        append(record);
    written_ = 0;
}

void Journal::fail(std::string const& what) {
    std::string const why = std::error_code(errno, std::generic_category()).message();
    std::lock_guard<std::mutex> const lock(mutex_);
    failure_ = "cannot " + what + " \"" + path_ + "\": " + why;
    changed_.notify_all();
}
