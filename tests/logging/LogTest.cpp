#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>

#include "LogCapture.h"
#include "Threads.h"
#include "Waiting.h"
#include "logging/LineLimit.h"

using testsupport::LogCapture;
using testsupport::LogRecord;

namespace {

/** What a sink of these tests finds behind its context. */
struct Context {
    std::atomic<bool> alive{true};
    std::atomic<int> records{0};
    std::atomic<int> tooLate{0};

    static void take(Logging::Record const&, void* self) {
        auto& context = *static_cast<Context*>(self);
        if (!context.alive)
            ++context.tooLate;
        ++context.records;
    }
};

}  // namespace

TEST(LogRecord, carriesWhereItComesFromAndLeavesErrnoAlone) {
    LogCapture log;
    errno = EXDEV;
    int const line = __LINE__ + 1;
    REFLECTORB_LOG(4, "Source", "number %d and %s", 7, "text");
    EXPECT_EQ(errno, EXDEV);
    ASSERT_EQ(log.records().size(), 1u);
    LogRecord const record = log.records()[0];
    EXPECT_EQ(record.level, 4);
    EXPECT_EQ(record.line, line);
    EXPECT_EQ(record.source, "Source");
    EXPECT_EQ(record.text, "number 7 and text");
    EXPECT_EQ(record.thread, syscall(SYS_gettid));
}

TEST(LogRecord, aboveTheThresholdIsNeitherFormattedNorEmitted) {
    LogCapture log(5);
    int evaluated = 0;
    REFLECTORB_LOG(6, "Source", "%d", ++evaluated);
    LogMakeString("made by hand");
    LogDispatch(6, 1, "Source");
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(log.records().empty());
    LogDispatch(5, 1, "Source");
    EXPECT_TRUE(log.contains("made by hand"));
}

TEST(LogRecord, isCutAtItsLimit) {
    LogCapture log;
    std::string const most(4095, 'a');
    REFLECTORB_LOG(5, "Source", "%s", most.c_str());
    REFLECTORB_LOG(5, "Source", "%sbbb", most.c_str());
    for (LogRecord const& record : log.records())
        EXPECT_EQ(record.text, most);
}

TEST(LogRecord, bearsTheActorsName) {
    LogCapture log;
    REFLECTORB_LOG(5, "Source", "default");
    EXPECT_NE(log.find("default")->actor.find("logging-test"), std::string::npos);
    for (char const* name : {"first", "second", "first"}) {
        Logging::setActor(name);
        REFLECTORB_LOG(5, "Source", "given");
        EXPECT_EQ(log.records().back().actor, name);
    }
    Logging::setActor(nullptr);
}

TEST(LogRecord, ofSeveralThreadsAreNotMixedUp) {
    LogCapture log;
    constexpr std::size_t kThreads = 8;
    constexpr int kRecords = 300;
    auto const text = [](std::size_t t, int i) {
        std::string const tail(t * 100, static_cast<char>('a' + t));
        return std::to_string(t) + ":" + std::to_string(i) + ":" + tail;
    };
    testsupport::TestThreads(kThreads, [&text](std::size_t t) {
        for (int i = 0; i < kRecords; ++i)
            REFLECTORB_LOG(5, "Source", "%s", text(t, i).c_str());
    });
    std::vector<int> next(kThreads, 0);
    for (LogRecord const& record : log.records()) {
        auto const t = static_cast<std::size_t>(record.text[0] - '0');
        EXPECT_EQ(record.text, text(t, next[t]++));
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kRecords));
}

TEST(LineLimit, letsTheFirstPassThenOneASecondThatCountsTheOthers) {
    LogCapture log;
    Logging::LineLimit limit(3);
    int line = 0;
    auto burst = [&] {
        for (int i = 0; i < 1000; ++i) {
            ++line;
            REFLECTORB_LOG_LIMITED(limit, 3, "Source", "line %d", line);
        }
    };
    burst();
    ASSERT_EQ(log.records().size(), 3u);
    EXPECT_TRUE(testsupport::eventually([&] {
        burst();
        return log.contains("lines like this one were held back");
    }));
    auto const told = log.find("lines like this one were held back");
    EXPECT_EQ(told->source, "Source");
    EXPECT_GE(std::stoi(told->text), 997);
    EXPECT_EQ(log.records().size(), 5u);
    EXPECT_EQ(log.records()[3].text, "line " + std::to_string(4 + std::stoi(told->text)));
}

TEST(LogSink, isNotCalledOnceItsReplacementHasReturned) {
    constexpr int kRounds = 300;
    std::atomic<bool> stop{false};
    std::vector<Context> contexts(kRounds);
    Logging::setSink(&Context::take, &contexts[0]);
    testsupport::TestThreads loggers(4, [&](std::size_t) {
        while (!stop)
            REFLECTORB_LOG(5, "Source", "record");
    });
    for (int i = 1; i < kRounds; ++i) {
        Context& former = contexts[static_cast<std::size_t>(i - 1)];
        testsupport::eventually([&] { return former.records > 0; });
        Logging::setSink(&Context::take, &contexts[static_cast<std::size_t>(i)]);
        former.alive = false;
    }
    stop = true;
    loggers.join();
    Logging::setSink(nullptr, nullptr);
    for (Context const& context : contexts)
        EXPECT_EQ(context.tooLate, 0);
}

TEST(LogSink, canReplaceItselfFromInsideAndDoesNotGetWhatItLogsItself) {
    static std::string texts;
    texts.clear();
    Logging::Sink const once = [](Logging::Record const& record, void*) {
        REFLECTORB_LOG(3, "Source", "about the sink");
        texts += record.text;
        Logging::setSink([](Logging::Record const&, void*) { texts += "replaced"; }, nullptr);
    };
    Logging::setSink(once, nullptr);
    REFLECTORB_LOG(5, "Source", "first ");
    REFLECTORB_LOG(5, "Source", "second");
    Logging::setSink(nullptr, nullptr);
    EXPECT_EQ(texts, "first replaced");
}

TEST(LogSink, isNoCancellationPoint) {
    static std::atomic<bool> finished;
    finished = false;
    Logging::setSink(
        [](Logging::Record const&, void*) {
            pthread_testcancel();
            finished = true;
        },
        nullptr);
    testsupport::TestThread thread([] {
        pthread_cancel(pthread_self());
        REFLECTORB_LOG(5, "Source", "with a cancellation pending");
        pthread_testcancel();
    });
    EXPECT_TRUE(thread.join());
    Logging::setSink(nullptr, nullptr);
    EXPECT_TRUE(finished);
}
