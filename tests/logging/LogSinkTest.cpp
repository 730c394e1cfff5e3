#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Threads.h"
#include "Waiting.h"
#include "logging/Log.h"

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

TEST(LogSink, isNotCalledOnceItsReplacementHasReturned) {
    constexpr int kRounds = 300;
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    std::vector<Context> contexts(kRounds);
    Logging::setSink(&Context::take, &contexts[0]);
    for (int i = 0; i < 4; ++i)
        loggers.emplace_back([&] {
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
    for (std::thread& logger : loggers)
        logger.join();
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
