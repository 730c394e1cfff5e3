#include <gtest/gtest.h>

#include "RendezvousFolder.h"
#include "TestTermination.h"
#include "Threads.h"

namespace transporttest {
namespace {

using Transport::AddressedMessage;
using Transport::Termination;

/** Terminations that live in one process. */
class LocalTest : public testing::Test {
protected:
    testsupport::RendezvousFolder folder_;
};

/** Has the receiving thread of a termination wait inside. */
struct HeldUp {
    explicit HeldUp(TestTermination& held) : termination(held) {
        held.onReceive([this](AddressedMessage const&) {
            inside.open();
            return goOn.wait();
        });
    }
    ~HeldUp() { termination.stop(); }

    TestTermination& termination;
    testsupport::Gate inside;
    testsupport::Gate goOn;
};

TEST_F(LocalTest, ATerminationSendsToItselfAndToOthersOfItsProcess) {
    TestTermination first;
    TestTermination second;
    ASSERT_EQ(first.start() + second.start(), 2);
    EXPECT_NE(first.termId(), second.termId());
    for (std::uint32_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(first.send(first.termId(), TestHead::Numbered, i, 8 + i), 1);
        ASSERT_EQ(second.send(first.termId(), TestHead::Numbered, i, 8 + i), 1);
    }
    EXPECT_TRUE(first.waitForReceived(2000));
    EXPECT_EQ(first.tally().faults, 0u);
    EXPECT_TRUE(second.ping(first.termId(), 1));
}

TEST_F(LocalTest, AMessageIsSentOrGivenBackByHandAsACopy) {
    TestTermination own;
    ASSERT_EQ(own.start(), 1);
    AddressedMessage message = own.allocateMessage(100, 5);
    EXPECT_EQ(message.originator(), own.termId());
    for (std::uint32_t i = 0; i < 100; ++i) {
        TestHead{TestHead::Numbered, i}.fill(message);
        ASSERT_EQ(own.issue(message), 1);
        ASSERT_EQ(own.issueError(message), 1);
    }
    EXPECT_TRUE(own.waitForReceived(100));
    EXPECT_TRUE(own.waitForReturned(100));
    EXPECT_EQ(own.tally().faults + own.tally().returnedFaults, 0u);
    EXPECT_EQ(Termination(Transport::TerminationId(0x03010FFFu)).issueError(message), 0);
}

TEST_F(LocalTest, NothingGoesFromOrToATerminationThatIsNotStarted) {
    TestTermination started;
    TestTermination fresh;
    ASSERT_EQ(started.start(), 1);
    EXPECT_EQ(fresh.send(started.termId(), TestHead::Numbered, 0), 0);
    EXPECT_EQ(started.send(fresh.termId(), TestHead::Numbered, 0), 0);
    ASSERT_EQ(fresh.start(), 1);
    EXPECT_EQ(fresh.start(), 0) << "started twice";
    EXPECT_TRUE(fresh.ping(started.termId(), 1));
    fresh.stop();
    fresh.stop();
    EXPECT_EQ(fresh.send(started.termId(), TestHead::Numbered, 0), 0);
    EXPECT_EQ(started.send(fresh.termId(), TestHead::Numbered, 0), 0);
    EXPECT_EQ(fresh.start(), 0) << "started again";
    EXPECT_TRUE(started.waitUntilGone(fresh.termId()));
}

TEST_F(LocalTest, StopReturnsOnlyWhenTheRunningCallbackHasEnded) {
    TestTermination own;
    HeldUp held(own);
    ASSERT_EQ(own.start(), 1);
    ASSERT_EQ(own.send(own.termId(), TestHead::Numbered, 0), 1);
    ASSERT_EQ(own.send(own.termId(), TestHead::Numbered, 1), 1);
    ASSERT_TRUE(held.inside.wait());
    std::thread opener([&] {
        testsupport::eventually([&] { return own.send(own.termId(), TestHead::Numbered, 2) == 0; });
        held.goOn.open();
    });
    own.stop();
    EXPECT_TRUE(held.goOn.isOpen());
    std::uint32_t const calls = own.tally().received;
    opener.join();
    EXPECT_EQ(own.tally().received, calls);
}

TEST_F(LocalTest, ATerminationMayBeStoppedAndDeletedInItsOwnCallback) {
    TestTermination other;
    ASSERT_EQ(other.start(), 1);
    for (bool const deleting : {false, true}) {
        auto* own = new TestTermination;
        testsupport::Gate done;
        own->onReceive([&](AddressedMessage const&) {
            if (deleting)
                delete own;
            else
                own->stop();
            done.open();
            return false;
        });
        ASSERT_EQ(own->start(), 1);
        Transport::TerminationId const id = own->termId();
        ASSERT_EQ(other.send(id, TestHead::Numbered, 0), 1);
        ASSERT_TRUE(done.wait());
        EXPECT_TRUE(other.waitUntilGone(id));
        EXPECT_EQ(other.send(id, TestHead::Numbered, 1), 0);
        if (!deleting)
            delete own;
    }
}

TEST_F(LocalTest, WhatAStoppedTerminationHasNotReadComesBack) {
    TestTermination sender;
    auto receiver = std::make_unique<TestTermination>();
    HeldUp held(*receiver);
    ASSERT_EQ(sender.start() + receiver->start(), 2);
    for (std::uint32_t i = 0; i < 10; ++i)
        ASSERT_EQ(sender.send(receiver->termId(), TestHead::Numbered, i, 500), 1);
    ASSERT_TRUE(held.inside.wait());
    std::thread stopper([&] { receiver->stop(); });
    EXPECT_TRUE(sender.waitUntilGone(receiver->termId()));
    testsupport::eventually(
        [&] { return receiver->send(sender.termId(), TestHead::Numbered, 0) == 0; });
    held.goOn.open();
    stopper.join();
    std::uint32_t const read = receiver->tally().received;
    EXPECT_TRUE(sender.waitForReturned(10 - read));
    EXPECT_EQ(sender.tally().returned, 10 - read);
    EXPECT_EQ(sender.tally().returnedFaults, 0u);
}

TEST_F(LocalTest, StoppingWhileOthersSendIsSafe) {
    TestTermination sender;
    ASSERT_EQ(sender.start(), 1);
    for (int round = 0; round < 20; ++round) {
        TestTermination receiver;
        ASSERT_EQ(receiver.start(), 1);
        std::atomic<bool> go{true};
        testsupport::TestThreads threads(3, [&](std::size_t) {
            for (int n = 0; n < 2000 && go; ++n) {
                sender.send(receiver.termId(), TestHead::Echo, 1, 64);
                receiver.send(sender.termId(), TestHead::Echo, 1, 64);
            }
        });
        EXPECT_TRUE(receiver.ping(sender.termId(), 1));
        receiver.stop();
        go = false;
    }
}

TEST_F(LocalTest, AFullInboxRefusesAndTakesAgainWhenItIsRead) {
    TestTermination own;
    HeldUp held(own);
    ASSERT_EQ(own.start(), 1);
    std::uint32_t taken = 0;
    while (own.send(own.termId(), TestHead::Numbered, taken, 4 * 1024 * 1024) == 1)
        ASSERT_LT(++taken, 100u) << "no limit";
    EXPECT_GE(taken, 15u);
    held.goOn.open();
    EXPECT_TRUE(own.waitForReceived(taken));
    EXPECT_EQ(own.send(own.termId(), TestHead::Numbered, taken), 1);
}

}  // namespace
}  // namespace transporttest
