#include "LogCapture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace testsupport {
namespace {

bool hasPart(LogRecord const& record, std::string const& part) {
    return record.text.find(part) != std::string::npos;
}

}  // namespace

LogCapture::LogCapture(int threshold) : formerThreshold_(Logging::threshold()) {
    Logging::setSink(&LogCapture::take, this);
    Logging::setThreshold(threshold);
}

LogCapture::~LogCapture() {
    Logging::setThreshold(formerThreshold_);
    Logging::setSink(nullptr, nullptr);
    if (std::getenv("TEST_SHOW_LOG") == nullptr)
        return;
    for (LogRecord const& r : records_)
        std::fprintf(stderr, "[log] %d %s(%ld) %s:%d %s\n", r.level, r.actor.c_str(), r.thread,
                     r.source.c_str(), r.line, r.text.c_str());
}

void LogCapture::take(Logging::Record const& record, void* self) {
    auto& capture = *static_cast<LogCapture*>(self);
    LogRecord copy{record.level,  record.actor, record.thread,
                   record.source, record.line,  record.text};
    std::lock_guard<std::mutex> const lock(capture.mutex_);
    capture.records_.push_back(std::move(copy));
    capture.arrived_.notify_all();
}

std::vector<LogRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return records_;
}

std::vector<std::string> LogCapture::texts() const {
    std::vector<std::string> texts;
    for (LogRecord const& record : records())
        texts.push_back(record.text);
    return texts;
}

std::optional<LogRecord> LogCapture::find(std::string const& part) const {
    for (LogRecord const& record : records())
        if (hasPart(record, part))
            return record;
    return std::nullopt;
}

std::size_t LogCapture::count(std::string const& part) const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return countLocked(part);
}

std::size_t LogCapture::count(int level, std::string const& part) const {
    std::size_t count = 0;
    for (LogRecord const& record : records())
        count += record.level == level && hasPart(record, part);
    return count;
}

bool LogCapture::waitFor(std::string const& part, std::size_t times,
                         std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, limit, [&] { return countLocked(part) >= times; });
}

std::size_t LogCapture::countLocked(std::string const& part) const {
    return static_cast<std::size_t>(std::count_if(
        records_.begin(), records_.end(), [&](LogRecord const& r) { return hasPart(r, part); }));
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> const lock(mutex_);
    records_.clear();
}

}  // namespace testsupport
