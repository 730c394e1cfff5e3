#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "logging/Log.h"

namespace testsupport {

/** A log record that outlives the sink's call. */
struct LogRecord {
    int level;
    std::string actor;
    long thread;
    std::string source;
    int line;
    std::string text;

    bool contains(std::string const& part) const { return text.find(part) != std::string::npos; }
};

/**
 * Takes the process's log records in place of standard error for as long as it lives, and lets
 * all levels through. Only one at a time; its end puts the default sink and the former threshold
 * back and prints what was captured when the environment variable TEST_SHOW_LOG is set.
 *
 * All functions take a part of a record's text ("" fits every record). Any thread.
 */
class LogCapture {
public:
    explicit LogCapture(int threshold = 6) : formerThreshold_(Logging::threshold()) {
        Logging::setSink(&LogCapture::take, this);
        Logging::setThreshold(threshold);
    }
    ~LogCapture() {
        Logging::setThreshold(formerThreshold_);
        Logging::setSink(nullptr, nullptr);
        if (std::getenv("TEST_SHOW_LOG") == nullptr)
            return;
        for (LogRecord const& r : records_)
            std::fprintf(stderr, "[log] %d %s(%ld) %s:%d %s\n", r.level, r.actor.c_str(), r.thread,
                         r.source.c_str(), r.line, r.text.c_str());
    }
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    std::vector<LogRecord> records() const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return records_;
    }
    /** The texts alone, in order of arrival. */
    std::vector<std::string> texts() const {
        std::vector<std::string> texts;
        for (LogRecord const& record : records())
            texts.push_back(record.text);
        return texts;
    }
    /** The first record whose text contains `part`. */
    std::optional<LogRecord> find(std::string const& part) const {
        for (LogRecord const& record : records())
            if (record.contains(part))
                return record;
        return std::nullopt;
    }
    bool contains(std::string const& part) const { return find(part).has_value(); }
    std::size_t count(std::string const& part) const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return countLocked([&](LogRecord const& record) { return record.contains(part); });
    }
    std::size_t count(int level, std::string const& part) const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return countLocked([&](LogRecord const& record) {
            return record.level == level && record.contains(part);
        });
    }
    /** Waits until `times` records contain `part`; false when the limit has passed first. */
    bool waitFor(std::string const& part, std::size_t times = 1,
                 std::chrono::milliseconds limit = std::chrono::seconds(20)) const {
        auto const fits = [&](LogRecord const& record) { return record.contains(part); };
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_for(lock, limit, [&] { return countLocked(fits) >= times; });
    }
    void clear() {
        std::lock_guard<std::mutex> const lock(mutex_);
        records_.clear();
    }

private:
    static void take(Logging::Record const& record, void* self) {
        auto& capture = *static_cast<LogCapture*>(self);
        LogRecord copy{record.level,  record.actor, record.thread,
                       record.source, record.line,  record.text};
        std::lock_guard<std::mutex> const lock(capture.mutex_);
        capture.records_.push_back(std::move(copy));
        capture.arrived_.notify_all();
    }
    template <class Fits>
    std::size_t countLocked(Fits const& fits) const {
        return static_cast<std::size_t>(std::count_if(records_.begin(), records_.end(), fits));
    }

    int const formerThreshold_;
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::vector<LogRecord> records_;  // guarded by mutex_
};

}  // namespace testsupport
