#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <regex>

#include "ChildProgram.h"
#include "Threads.h"
#include "logging/Log.h"

namespace {

/** Standard error replaced for a test, by the writing end of a pipe or a socket pair. */
class RedirectedError {
public:
    explicit RedirectedError(bool socket = false) : former_(dup(STDERR_FILENO)) {
        int ends[2];
        int const result = socket ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends)
                                  : pipe2(ends, O_CLOEXEC);
        EXPECT_EQ(result, 0);
        reader_ = ends[0];
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
    }
    ~RedirectedError() {
        putBack();
        close(former_);
        close(reader_);
    }
    void putBack() { dup2(former_, STDERR_FILENO); }
    void loseReader() { dup2(former_, reader_); }
    /** Reads what there is without waiting. */
    void drain() {
        fcntl(reader_, F_SETFL, O_NONBLOCK);
        char buffer[65536];
        for (ssize_t n; (n = read(reader_, buffer, sizeof buffer)) > 0;)
            text_.append(buffer, static_cast<std::size_t>(n));
    }
    /** Complete lines read so far. */
    std::vector<std::string> lines() const {
        std::vector<std::string> lines;
        std::size_t begin = 0;
        for (std::size_t end; (end = text_.find('\n', begin)) != std::string::npos; begin = end + 1)
            lines.push_back(text_.substr(begin, end - begin));
        EXPECT_EQ(begin, text_.size()) << "a line without end";
        return lines;
    }

private:
    int const former_;
    int reader_ = -1;
    std::string text_;
};

std::string const kPrefix = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \d .*logging-test.*\[\d+\] )";

std::vector<std::string> linesOf(std::size_t textLength, int records, RedirectedError& error) {
    std::string const text(textLength, 'x');
    for (int i = 0; i < records; ++i)
        REFLECTORB_LOG(5, "Source", "%s", text.c_str());
    error.drain();
    error.putBack();
    return error.lines();
}

}  // namespace

TEST(StandardErrorSink, writesALinePerRecord) {
    for (bool const socket : {false, true}) {
        RedirectedError error(socket);
        REFLECTORB_LOG(3, "Source", "plain text");
        REFLECTORB_LOG(5, "Source", "two\nlines\x1B[1m");
        error.drain();
        error.putBack();
        std::vector<std::string> const lines = error.lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_TRUE(std::regex_match(lines[0], std::regex(kPrefix + R"(Source:\d+ plain text)")))
            << lines[0];
        EXPECT_TRUE(
            std::regex_match(lines[1], std::regex(kPrefix + R"(Source:\d+ two lines \[1m)")))
            << lines[1];
    }
}

TEST(StandardErrorSink, cutsALineToWhatAPipeTakesInOnePiece) {
    RedirectedError error;
    std::vector<std::string> const lines = linesOf(4095, 1, error);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].size() + 1, 4096u);
    EXPECT_EQ(lines[0].substr(lines[0].size() - 4), "x...");
}

TEST(StandardErrorSink, dropsAndCountsWhatAStuckReaderDoesNotTake) {
    for (bool const socket : {false, true}) {
        RedirectedError error(socket);
        constexpr int kRecords = 3000;  // far more than the pipe holds
        testsupport::TestThreads(4, [](std::size_t) {
            for (int i = 0; i < kRecords / 4; ++i)
                REFLECTORB_LOG(5, "Source", "a record of some length %d, %200d", i, i);
        });
        error.drain();
        REFLECTORB_LOG(5, "Source", "room again");
        error.drain();
        error.putBack();

        unsigned long reported = 0;
        unsigned long arrived = 0;
        std::regex const report(".* (\\d+) log records dropped: standard error had no room");
        for (std::string const& line : error.lines()) {
            std::smatch count;
            if (std::regex_match(line, count, report))
                reported += std::stoul(count[1]);
            else
                arrived += line.find("a record of some length") != std::string::npos;
        }
        EXPECT_GT(reported, 0u);
        EXPECT_GT(arrived, 0u);
        // A socket may take a part of a line; that line is then cut and counts as lost.
        EXPECT_GE(arrived + reported, static_cast<unsigned long>(kRecords));
        EXPECT_LE(arrived + reported, static_cast<unsigned long>(kRecords) + (socket ? 8 : 0));
        EXPECT_NE(error.lines().back().find("room again"), std::string::npos);
    }
}

TEST(StandardErrorSink, outlivesAReaderThatHasGone) {
    ::signal(SIGPIPE, SIG_DFL);
    RedirectedError error;
    error.loseReader();
    std::vector<std::string> const none = linesOf(10, 3, error);
    EXPECT_TRUE(none.empty());
    sigset_t pending;
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGPIPE));

    RedirectedError next;
    std::vector<std::string> const lines = linesOf(10, 1, next);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find(" 3 log records dropped"), std::string::npos) << lines[0];
}

TEST(StandardErrorSink, worksFromTheFirstToTheLastMomentOfAProcess) {
    for (char const* way : {"return", "thread"}) {
        testsupport::ChildProgram child("log-at-exit", {way}, testsupport::ChildProgram::longEnd());
        EXPECT_EQ(child.exitCode(), 0);
        int marks = 0;
        std::regex const form(
            R"(\d{4}-\S+Z \d \S+\[\d+\] LogAtExit:\d+ (thread \d+|static constructor|static destructor|exit handler)|.* log records dropped: .*)");
        for (std::string const& line : child.errorLines()) {
            EXPECT_TRUE(std::regex_match(line, form)) << line;
            marks += line.find("static") != std::string::npos ||
                     line.find("exit handler") != std::string::npos;
        }
        EXPECT_EQ(marks, 3);
    }
}
