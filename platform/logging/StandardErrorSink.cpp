#include "StandardErrorSink.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "oswrap/Clock.h"

namespace Logging {
namespace {

constexpr long long kPatienceNanoseconds = 20'000'000;  // a pipe's reader is not far behind
constexpr int kSevere = 2;                              // such records are always waited for

/** Lines lost since the last report of such losses. */
std::atomic<unsigned long> dropped{0};
/** The last line broke off in the middle. */
std::atomic<bool> torn{false};

/** A record as a line of text of at most 4,096 bytes: what a pipe takes in one piece. */
class Line {
public:
    explicit Line(Record const& record) {
        tm utc{};
        gmtime_r(&record.time.tv_sec, &utc);
        size_ = strftime(text_, sizeof text_, "%Y-%m-%dT%H:%M:%S", &utc);
        int const rest =
            std::snprintf(text_ + size_, sizeof text_ - size_, ".%06ldZ %d %.64s[%ld] %.64s:%d ",
                          record.time.tv_nsec / 1000, record.level, record.actor, record.thread,
                          record.source, record.line);
        size_ += static_cast<std::size_t>(std::max(rest, 0));
        append(record.text);
        std::replace_if(
            text_, text_ + size_,
            [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, ' ');
        text_[size_++] = '\n';
    }

    char const* text() const { return text_; }
    std::size_t size() const { return size_; }

private:
    void append(char const* text) {
        std::size_t const room = sizeof text_ - 1 - size_;
        std::size_t const length = std::strlen(text);
        std::memcpy(text_ + size_, text, std::min(length, room));
        size_ += std::min(length, room);
        if (length > room)
            std::memcpy(text_ + size_ - 3, "...", 3);
    }

    char text_[4096];
    std::size_t size_ = 0;
};

/**
 * Standard error for the length of one line, in a way that does not block. The mode of descriptor 2
 * is shared with other processes and is theirs to choose, so pipes and terminals are opened anew.
 * They are not kept open, since whoever reads a pipe may wait for its end. Where opening is not
 * allowed, and for files, the descriptor itself serves.
 */
class Output {
public:
    Output() {
        struct stat status {};
        if (fstat(STDERR_FILENO, &status) != 0)
            return;
        socket_ = S_ISSOCK(status.st_mode);
        if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))
            own_ = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
    ~Output() {
        if (own_ >= 0)
            close(own_);
    }
    Output(Output const&) = delete;
    Output& operator=(Output const&) = delete;

    /** Waits for room until the time given; true when there is some. */
    bool waitForRoom(long long end) const {
        pollfd room{descriptor(), POLLOUT, 0};
        int answer;
        do {
            long long const left = std::max(end - OSWrap::Clock::nowNanoseconds(), 0LL);
            answer = poll(&room, 1, static_cast<int>((left + 999'999) / 1'000'000));
        } while (answer < 0 && errno == EINTR);
        return answer > 0 && (room.revents & POLLOUT) != 0;
    }
    ssize_t write(char const* text, std::size_t size) const {
        return socket_ ? send(descriptor(), text, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                       : ::write(descriptor(), text, size);
    }

private:
    int descriptor() const { return own_ >= 0 ? own_ : STDERR_FILENO; }

    bool socket_ = false;
    int own_ = -1;
};

/** For a scope, a write to a pipe that nobody reads fails without ending the process. */
class NoBrokenPipeSignal {
public:
    NoBrokenPipeSignal() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &former_);
    }
    ~NoBrokenPipeSignal() {
        // Where the signal was blocked before, one more pending does not matter.
        if (broken_ && sigismember(&former_, SIGPIPE) == 0) {
            timespec const now{0, 0};
            sigtimedwait(&pipe_, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &former_, nullptr);
    }
    NoBrokenPipeSignal(NoBrokenPipeSignal const&) = delete;
    NoBrokenPipeSignal& operator=(NoBrokenPipeSignal const&) = delete;
    void broken() { broken_ = true; }

private:
    sigset_t pipe_;
    sigset_t former_;
    bool broken_ = false;
};

/** Writes a line whole, or answers false. */
bool writeLine(Output const& output, Line const& line, long long end) {
    NoBrokenPipeSignal guard;
    if (!output.waitForRoom(end))
        return false;
    if (torn.load(std::memory_order_relaxed) && torn.exchange(false))
        output.write("\n", 1);
    std::size_t done = 0;
    while (done < line.size()) {
        ssize_t const size = output.write(line.text() + done, line.size() - done);
        if (size > 0) {
            done += static_cast<std::size_t>(size);
            continue;
        }
        if (errno == EPIPE)
            guard.broken();
        bool const later = errno == EINTR || errno == EAGAIN;
        if (!later || OSWrap::Clock::nowNanoseconds() >= end || !output.waitForRoom(end)) {
            torn.store(done > 0);
            return false;
        }
    }
    return true;
}

/** Tells how many records were lost, in a line with the time and thread of the next one. */
bool reportDropped(Output const& output, Record const& next, long long end) {
    unsigned long const lost = dropped.exchange(0);
    if (lost == 0)
        return true;
    char text[96];
    std::snprintf(text, sizeof text, "%lu log records dropped: standard error had no room", lost);
    Record report = next;
    report.level = 4;
    report.source = "Log";
    report.line = __LINE__;
    report.text = text;
    if (writeLine(output, Line(report), end))
        return true;
    dropped.fetch_add(lost);
    return false;
}

}  // namespace

void standardErrorSink(Record const& record, void*) {
    Output const output;
    // After a loss nobody waits again, lest every record cost that time, until a line gets through.
    bool const stuck = dropped.load(std::memory_order_relaxed) > 0 && record.level > kSevere;
    long long const end = OSWrap::Clock::nowNanoseconds() + (stuck ? 0 : kPatienceNanoseconds);
    if (!reportDropped(output, record, end) || !writeLine(output, Line(record), end))
        dropped.fetch_add(1);
}

}  // namespace Logging
