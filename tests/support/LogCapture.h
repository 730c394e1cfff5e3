#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
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
    explicit LogCapture(int threshold = 6);
    ~LogCapture();
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    std::vector<LogRecord> records() const;
    /** The texts alone, in order of arrival. */
    std::vector<std::string> texts() const;
    /** The first record whose text contains `part`. */
    std::optional<LogRecord> find(std::string const& part) const;
    bool contains(std::string const& part) const { return find(part).has_value(); }
    std::size_t count(std::string const& part) const;
    std::size_t count(int level, std::string const& part) const;
    /** Waits until `times` records contain `part`; false when the limit has passed first. */
    bool waitFor(std::string const& part, std::size_t times = 1,
                 std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
    void clear();

private:
    static void take(Logging::Record const& record, void* self);
    std::size_t countLocked(std::string const& part) const;

    int const formerThreshold_;
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::vector<LogRecord> records_;  // guarded by mutex_
};

}  // namespace testsupport
