#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "Waiting.h"
#include "logging/Log.h"

using testsupport::LogCapture;
using testsupport::LogRecord;

TEST(LogRecord, carriesWhereItComesFrom) {
    LogCapture log;
    int const line = __LINE__ + 1;
    REFLECTORB_LOG(4, "Source", "number %d and %s", 7, "text");
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
    for (char const* name : {"first", "second", "first"}) {
        Logging::setActor(name);
        REFLECTORB_LOG(5, "Source", "given");
    }
    Logging::setActor(nullptr);
    std::vector<LogRecord> const records = log.records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_NE(records[0].actor.find("logging-test"), std::string::npos) << records[0].actor;
    EXPECT_EQ(records[1].actor, "first");
    EXPECT_EQ(records[2].actor, "second");
    EXPECT_EQ(records[3].actor, "first");
}

TEST(LogRecord, leavesErrnoAlone) {
    LogCapture log;
    errno = EXDEV;
    REFLECTORB_LOG(5, "Source", "anything");
    EXPECT_EQ(errno, EXDEV);
}

TEST(LogRecord, ofSeveralThreadsAreNotMixedUp) {
    LogCapture log;
    constexpr int kThreads = 8;
    constexpr int kRecords = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            std::string const tail(static_cast<std::size_t>(t) * 100, static_cast<char>('a' + t));
            for (int i = 0; i < kRecords; ++i)
                REFLECTORB_LOG(5, "Source", "%d:%d:%s", t, i, tail.c_str());
        });
    for (std::thread& thread : threads)
        thread.join();
    std::vector<int> next(kThreads, 0);
    for (LogRecord const& record : log.records()) {
        int const t = record.text[0] - '0';
        auto const index = static_cast<std::size_t>(t);
        std::string const tail(index * 100, static_cast<char>('a' + t));
        EXPECT_EQ(record.text,
                  std::to_string(t) + ":" + std::to_string(next[index]++) + ":" + tail);
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kRecords));
}

TEST(LogRecord, canBeMadeInThreadSpecificDestructors) {
    LogCapture log;
    pthread_key_t key;
    pthread_key_create(
        &key, [](void* value) { REFLECTORB_LOG(5, "Source", "%s", static_cast<char*>(value)); });
    char text[] = "from a destructor";
    std::thread([&] {
        REFLECTORB_LOG(5, "Source", "before");
        pthread_setspecific(key, text);
    }).join();
    pthread_key_delete(key);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"before", "from a destructor"}));
}
