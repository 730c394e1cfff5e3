// The permission itself: who gets it, in which order, and what is reported about misuse.
#include <sys/resource.h>

#include "PermissionThreads.h"

using namespace permissiontest;
using testing::HasSubstr;
using testsupport::LogRecord;

namespace {

/** Thread-specific data whose destructor uses the permission at its thread's end. */
class UserOfPermissionAtEnd {
public:
    UserOfPermissionAtEnd() { pthread_key_create(&key_, use); }
    ~UserOfPermissionAtEnd() { pthread_key_delete(key_); }
    void armForThisThread() { pthread_setspecific(key_, this); }
    int used() const { return used_; }

private:
    static void use(void* self) {
        TreflectHandlerState const state(true);
        TreflectReleaseHandlerState const released;
        TreflectRestoreHandlerState const restored;
        ++static_cast<UserOfPermissionAtEnd*>(self)->used_;
    }
    pthread_key_t key_{};
    std::atomic<int> used_{0};
};

/** Creates the process's HandlerThreads before the first test, and keeps what it says and a key
 * that is older. */
struct Creation {
    Creation() {
        LogCapture log;
        earlierKey = std::make_unique<UserOfPermissionAtEnd>();
        Run::handlerThreads();
        Run::handlerThreads();
        records = log.records();
    }
    std::vector<LogRecord> records;
    std::unique_ptr<UserOfPermissionAtEnd> earlierKey;
} const creation;

class RunPermission : public PermissionTest {
protected:
    /** The next `threads` that ask for the permission queue behind each other in this order, each
     * writes its number when it has its turn. */
    void queueUpAll(int threads) {
        for (int i = 0; i < threads; ++i)
            queueUp([this, i] {
                Run::getRunPermission();
                turns_.push_back(i);
                Run::releaseRunPermission();
            });
    }

    std::vector<int> turns_;  // guarded by the run permission
};

std::string describe(LogRecord const& record) {
    return std::to_string(record.level) + " " + record.source + ": " + record.text;
}

TEST_F(RunPermission, CreationTellsItsPartsOnce) {
    std::vector<std::string> lines;
    for (LogRecord const& record : creation.records)
        lines.push_back(describe(record));
    EXPECT_THAT(lines, ElementsAre("5 REFLECT_orb: ORB HandlerThreads using SetContainer",
                                   "5 REFLECT_orb: ORB HandlerThreads using DebugPermission",
                                   "4 REFLECT_orb: ORB uses HandlerThreads with DEBUG flag set"));
}

TEST_F(RunPermission, HandlerStatesNestAndAreCountedOverAllThreads) {
    Run::enterHandlerState(false);
    Run::enterHandlerState(false);
    TestThread([] {
        Run::enterHandlerState(false);
        EXPECT_EQ(Run::handlerThreads().size(), 3u);
        Run::leaveHandlerState(false);
        Run::leaveHandlerState(false);  // once too often
        EXPECT_FALSE(Run::isHandlerThread());
    });
    EXPECT_EQ(Run::handlerThreads().size(), 2u);
    Run::leaveHandlerState(false);
    EXPECT_TRUE(Run::isHandlerThread());
    Run::leaveHandlerState(false);
    EXPECT_FALSE(Run::isHandlerThread());
}

TEST_F(RunPermission, OtherThreadsDoNotGetItAndAreToldThreeTimes) {
    LogCapture log;
    TestThread([] {
        for (int i = 0; i < 6; ++i)
            Run::getRunPermission();
        EXPECT_FALSE(Run::hasRunPermission());
        Run::releaseRunPermission();  // no handler thread: not even a line
        EXPECT_FALSE(Run::handlerThreads().retrievePermission());
    });
    EXPECT_EQ(log.count("getRunPermission() called by thread "), 3u);
    EXPECT_EQ(log.count(4, ", which is no handler thread"), 3u);
    EXPECT_EQ(log.records().size(), 3u);
    TestThread([] { Run::getRunPermission(); });
    EXPECT_EQ(log.records().size(), 4u) << "each thread has reports of its own";
}

TEST_F(RunPermission, RemoteCallWithoutItIsToldThreeTimesWithBacktrace) {
    LogCapture log;
    unsigned long id = 0;
    TestThread([&id] {
        id = OSWrap::Thread::getCurrentId();
        for (int i = 0; i < 6; ++i)
            Run::checkHandlerState();
        // Its first report finds the record of the other kind and so starts at 1.
        for (int i = 0; i < 6; ++i)
            Run::getRunPermission();
    });
    EXPECT_EQ(log.count(3, " thread " + std::to_string(id) +
                               "  doing RMI, but has no RunPermission (owner=0)"),
              3u);
    EXPECT_EQ(log.count(5, "Backtracing RMI with no RunPermission"), 3u);
    EXPECT_EQ(log.count(5, "BT<00> "), 3u);
    EXPECT_EQ(log.find("BT<00> ")->source, "HandlerThreadPolicies");
    EXPECT_EQ(log.find("BT<00> ")->text.find('/'), std::string::npos);
    EXPECT_EQ(log.count(4, ", which is no handler thread"), 2u);
    log.clear();
    TreflectHandlerState const state(true);
    Run::checkHandlerState();
    EXPECT_TRUE(log.records().empty());
}

TEST_F(RunPermission, FurtherLevelIsReportedAndKept) {
    LogCapture log;
    Run::enterHandlerState(true);
    Run::getRunPermission();
    EXPECT_EQ(Run::getRunPermissionCount(), 2u);
    std::string const line =
        "RunPermission 2 by thread " + std::to_string(OSWrap::Thread::getCurrentTid()) + " ";
    EXPECT_EQ(log.texts().at(0), line);
    EXPECT_EQ(log.records().at(0).level, 4);
    EXPECT_EQ(log.records().at(0).source, "REFLECT_orb");
    EXPECT_EQ(log.texts().at(1), "Backtracing Multiple RunPermission");
    Run::releaseRunPermission();
    EXPECT_TRUE(Run::hasRunPermission());
    Run::releaseRunPermission();
    EXPECT_FALSE(Run::hasRunPermission());
    Run::leaveHandlerState(false);
}

TEST_F(RunPermission, ReleaseByAnotherThreadIsReportedAndIgnored) {
    TreflectHandlerState const state(true);
    LogCapture log;
    TestThread([] {
        TreflectHandlerState const other(false);
        Run::releaseRunPermission();
    });
    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_EQ(log.records()[0].level, 3);
    EXPECT_THAT(log.texts()[0], HasSubstr("::releaseRunPermission(thread="));
    EXPECT_THAT(log.texts()[0], HasSubstr(") called without being owner"));
    EXPECT_TRUE(Run::hasRunPermission());
}

TEST_F(RunPermission, LeavingHandlerStateNeverKeepsIt) {
    LogCapture log;
    Run::enterHandlerState(true);
    Run::enterHandlerState(false);
    Run::getRunPermission();
    log.clear();
    Run::leaveHandlerState(false);
    EXPECT_EQ(Run::getRunPermissionOwner(), 0u);
    EXPECT_TRUE(Run::isHandlerThread()) << "an outer handler state is left";
    std::string const line = "Thread " + std::to_string(OSWrap::Thread::getCurrentId()) +
                             "  has 2 RunPermission after leaveHandlerState";
    EXPECT_EQ(log.count(3, line), 1u);
    EXPECT_EQ(log.texts().at(1), "Backtracing leaveHandlerState() keeps RunPermission");
    Run::leaveHandlerState(false);
}

TEST_F(RunPermission, LongQueueIsServedInItsOrderAndWakesOnlyThoseWhoseTurnComes) {
    constexpr int kThreads = 64;
    LogCapture const log;
    Run::enterHandlerState(true);
    queueUpAll(kThreads);
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    Run::releaseRunPermission();
    Run::getRunPermission();
    turns_.push_back(kThreads);  // whoever comes back queues behind the others
    Run::leaveHandlerState(true);
    joinAll();
    getrusage(RUSAGE_SELF, &after);
    EXPECT_EQ(turns_.size(), static_cast<std::size_t>(kThreads + 1));
    EXPECT_TRUE(std::is_sorted(turns_.begin(), turns_.end()));
    EXPECT_TRUE(log.records().empty()) << "short waits say nothing";
    // Each sleeps a few times at most; if every release woke all, there would be 64 * 63 / 2 =
    // 2016.
    EXPECT_LT(after.ru_nvcsw - before.ru_nvcsw, kThreads * 10);
}

TEST_F(RunPermission, LongWaitIsReportedEverySecondByTheFrontOnly) {
    LogCapture log;
    Run::enterHandlerState(true);
    long const holder = OSWrap::Thread::getCurrentTid();
    queueUpAll(2);
    ASSERT_TRUE(log.waitFor(" since 2s"));
    Run::leaveHandlerState(true);
    joinAll();
    std::string const awaited = " waiting for thread " + std::to_string(holder) + "  since ";
    EXPECT_EQ(log.count(5, awaited + "1s"), 1u);
    EXPECT_EQ(log.count(5, awaited + "2s"), 1u);
    EXPECT_EQ(log.count(5, " got mutex from thread " + std::to_string(holder) + "  after 2s"), 1u);
    EXPECT_EQ(log.count("::getRunPermission(thread="), 3u);
    EXPECT_EQ(log.find("got mutex")->source, "REFLECT_orb");
    for (LogRecord const& record : log.records())
        EXPECT_EQ(record.thread, log.find("waiting for")->thread) << record.text;
}

TEST_F(RunPermission, EndingThreadLeavesEverythingWhateverElseEndsBeforeOrAfter) {
    // Keys are served in the order of their numbers, which are given out from below.
    UserOfPermissionAtEnd laterKey;
    for (UserOfPermissionAtEnd* user : {creation.earlierKey.get(), &laterKey}) {
        int const before = user->used();
        TestThread([user] {
            user->armForThisThread();
            Run::enterHandlerState(true);
        });
        TestThread([user] { user->armForThisThread(); });
        EXPECT_EQ(user->used() - before, 2);
    }
    EXPECT_TRUE(nothingLeft());
}

TEST(HandlerThreadsUtilities, FlagsAreToldOnce) {
    static std::vector<LogRecord> told;  // the process may run this test again
    LogCapture log;
    EXPECT_EQ(HandlerThreadsTypeOutput(1, 2, 3), 1);
    EXPECT_EQ(HandlerThreadsTypeOutput(4, 5, 6), 1);
    for (LogRecord const& record : log.records())
        told.push_back(record);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(describe(told[0]),
              "5 HandlerThreadsType: HandlerThreadsType compiled with flags: cnt=1, prm=2, dbg=3");
}

}  // namespace
