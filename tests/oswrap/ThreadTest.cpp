#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>

#include <set>

#include "LogCapture.h"
#include "Threads.h"
#include "Waiting.h"
#include "oswrap/Clock.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/Lock.h"
#include "oswrap/Thread.h"

using OSWrap::Clock;
using OSWrap::MethodThread;
using OSWrap::Priority;
using OSWrap::SchedulingPolicy;
using OSWrap::Thread;
using testsupport::eventually;
using testsupport::Gate;
using testsupport::LogCapture;

namespace {

/** Runs a function, and tells when it is destroyed. */
class TestThread : public Thread {
public:
    explicit TestThread(std::function<void()> body, bool detached = false,
                        std::atomic<bool>* gone = nullptr, std::size_t stackSize = 65'536,
                        SchedulingPolicy policy = SchedulingPolicy(0), int priority = 3)
        : Thread("A name of many letters", Priority(priority), policy, stackSize, detached),
          body_(std::move(body)),
          gone_(gone) {}
    ~TestThread() override {
        join();
        if (gone_ != nullptr)
            *gone_ = true;
    }

protected:
    int run() override {
        body_();
        return 0;
    }

private:
    std::function<void()> const body_;
    std::atomic<bool>* const gone_;
};

void runToItsEnd(TestThread& thread) {
    ASSERT_TRUE(thread.start());
    thread.join();
}

}  // namespace

TEST(Thread, hasNameStackAndSignalsAsPromised) {
    char name[32] = {};
    sigset_t blocked;
    std::size_t stack = 0;
    TestThread thread([&] {
        pthread_getname_np(pthread_self(), name, sizeof name);
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_destroy(&attributes);
    });
    runToItsEnd(thread);
    EXPECT_STREQ(name, "A name of many ");
    EXPECT_GE(stack, sizeof(void*) == 8 ? 4 * 65'536u : 65'536u);
    for (int const signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGPIPE, SIGUSR1, SIGALRM, SIGRTMIN})
        EXPECT_TRUE(sigismember(&blocked, signal)) << signal;
    for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        EXPECT_FALSE(sigismember(&blocked, fault)) << fault;
    sigset_t mine;
    pthread_sigmask(SIG_SETMASK, nullptr, &mine);
    EXPECT_FALSE(sigismember(&mine, SIGTERM));
}

TEST(Thread, withATinyStackRunsAndLogs) {
    LogCapture log;
    TestThread thread([] { REFLECTORB_LOG(5, "Test", "%s %f", "from a tiny stack", 1.5); }, false,
                      nullptr, 1);
    runToItsEnd(thread);
    EXPECT_TRUE(log.contains("from a tiny stack"));
}

TEST(Thread, ofAMethodRunsItAndIsJoinedByItsEnd) {
    struct Counter {
        std::atomic<int> count{0};
        void increment() { ++count; }
    } counter;
    {
        MethodThread<Counter> thread(counter, &Counter::increment, "Counter", Priority(3),
                                     SchedulingPolicy(0), 65'536);
        ASSERT_TRUE(thread.start());
    }
    EXPECT_EQ(counter.count, 1);
}

TEST(Thread, deletesItselfAfterReturnAndAfterCancellation) {
    for (bool const detached : {true, false})
        for (bool const cancelled : {false, true}) {
            std::atomic<bool> gone{false};
            std::atomic<bool> unwound{false};
            std::atomic<pthread_t> handle{};
            Gate running;
            auto body = [&, cancelled] {
                testsupport::Mark const mark{unwound};
                handle = pthread_self();
                running.open();
                while (cancelled)
                    Thread::sleep(3600, 0);
            };
            auto* const thread = new TestThread(body, detached, &gone);
            thread->deleteOnThreadTermination();
            ASSERT_TRUE(thread->start());
            ASSERT_TRUE(running.wait());
            if (cancelled)
                pthread_cancel(handle);
            EXPECT_SOON(gone.load());
            EXPECT_TRUE(unwound);
        }
}

TEST(Thread, isNotCancelledInItsDestructors) {
    static std::atomic<bool> finished;
    finished = false;
    static pthread_key_t key;
    pthread_key_create(&key, [](void*) {
        pthread_testcancel();
        finished = true;
    });
    TestThread thread([] {
        pthread_setspecific(key, &key);
        pthread_cancel(pthread_self());
    });
    runToItsEnd(thread);
    pthread_key_delete(key);
    EXPECT_TRUE(finished);
}

TEST(Thread, idIsNeverReusedAndHoldsInThreadSpecificDestructors) {
    static std::atomic<unsigned long> idInDestructor;
    pthread_key_t key;
    pthread_key_create(&key, [](void*) { idInDestructor = Thread::getCurrentId(); });
    std::set<unsigned long> ids{Thread::getCurrentId()};
    for (int i = 0; i < 50; ++i) {
        unsigned long id = 0;
        std::thread([&] {
            id = Thread::getCurrentId();
            pthread_setspecific(key, &id);
        }).join();
        EXPECT_NE(id, 0u);
        EXPECT_EQ(id, idInDestructor);
        EXPECT_TRUE(ids.insert(id).second);
    }
    pthread_key_delete(key);
    EXPECT_EQ(ids.count(Thread::getCurrentId()), 1u);
}

TEST(Thread, knowsItsKernelIdInAForkedChildToo) {
    Thread::getCurrentTid();  // which is kept from then on
    EXPECT_TRUE(testsupport::holdsInForkedChild(
        [] { return Thread::getCurrentTid() == syscall(SYS_gettid); }));
}

TEST(Thread, sleepIsResumedAfterASignal) {
    static std::atomic<int> signals;
    signals = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { ++signals; };
    struct sigaction former {};
    sigaction(SIGUSR1, &action, &former);
    std::atomic<bool> done{false};
    long long slept = 0;
    std::thread sleeper([&] {
        while (signals == 0)  // from now on a signal comes about every millisecond
            std::this_thread::yield();
        long long const start = Clock::nowNanoseconds();
        Thread::sleep(0, 60'000'000);
        slept = Clock::nowNanoseconds() - start;
        done = true;
    });
    eventually([&] {
        pthread_kill(sleeper.native_handle(), SIGUSR1);
        return done.load();
    });
    sleeper.join();
    sigaction(SIGUSR1, &former, nullptr);
    EXPECT_GE(slept, 60'000'000);
    EXPECT_GE(signals, 2);
}

TEST(Thread, joinIsNoCancellationPoint) {
    std::atomic<bool> ended{false};
    bool joined = false;
    TestThread outer([&] {
        TestThread inner([&] {
            Thread::sleep(0, 20'000'000);
            ended = true;
        });
        inner.start();
        pthread_cancel(pthread_self());
        inner.join();
        joined = ended;
        Thread::sleep(3600, 0);
    });
    runToItsEnd(outer);
    EXPECT_TRUE(joined);
}

TEST(Thread, refusedPolicyIsLoggedOnceAndIgnored) {
    static bool told = false;  // by an earlier run of this test in this process
    LogCapture log;
    std::atomic<int> ran{0};
    for (int const policy : {SCHED_OTHER, SCHED_FIFO, SCHED_FIFO}) {
        TestThread thread([&] { ++ran; }, false, nullptr, 65'536, SchedulingPolicy(policy), 500);
        runToItsEnd(thread);
    }
    EXPECT_EQ(ran, 3);
    EXPECT_EQ(log.count(5, "runs without policy 1, priority 500"), told ? 0u : 1u);
    EXPECT_EQ(log.records().size(), told ? 0u : 1u);
    told = true;
}

TEST(Thread, thatCannotBeStartedStaysTheCallers) {
    LogCapture log;
    std::size_t const tooMuch =
        sizeof(void*) == 8 ? static_cast<std::size_t>(1ULL << 56) : 0xE0000000U;
    std::atomic<bool> gone{false};
    {
        TestThread thread([] {}, true, &gone, tooMuch);
        EXPECT_FALSE(thread.start());
        EXPECT_FALSE(gone);
    }
    EXPECT_EQ(log.count(3, "could not be started"), 1u);
}
