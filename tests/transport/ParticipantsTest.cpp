// Who may speak as which link, and who is told of as a stranger.
#include "platform/transport/link/Participants.h"

#include <gtest/gtest.h>

#include "tests/support/LogCapture.h"

namespace {

using Link::Participants;

constexpr std::uint64_t kEpoch = 7;
Participants::Guid const kHonest{1}, kForger{2};

TEST(ParticipantsTest,
     an_epoch_is_spoken_for_by_who_has_announced_it_alone_and_only_until_it_ends) {
    Participants participants;
    EXPECT_FALSE(participants.isOf(kEpoch, 70, kHonest)) << "of whom nothing is known yet";
    EXPECT_TRUE(participants.announced(kEpoch, 70, kHonest));
    EXPECT_FALSE(participants.announced(kEpoch, 80, kForger));
    EXPECT_EQ(participants.isKnown(kEpoch, 80), std::nullopt);
    EXPECT_FALSE(participants.isOf(kEpoch, 80, kForger));
    EXPECT_EQ(participants.isKnown(kEpoch, 80), std::nullopt) << "that is not to be remembered";
    EXPECT_TRUE(participants.isOf(kEpoch, 71, kHonest));
    EXPECT_EQ(participants.isKnown(kEpoch, 71), true);
    EXPECT_TRUE(participants.announced(kEpoch + 1, 70, kHonest)) << "its next life";
    participants.lost(kEpoch);
    for (Participants::Writer const writer : {70, 71, 80})
        EXPECT_EQ(participants.isKnown(kEpoch, writer), false);
    EXPECT_FALSE(participants.isOf(kEpoch, 71, kHonest)) << "what is said late counts no more";
    EXPECT_EQ(participants.isKnown(kEpoch + 1, 70), true);
}

TEST(ParticipantsTest, a_stranger_is_told_of_once_and_only_if_it_announces_nothing_for_long) {
    testsupport::LogCapture const log;
    Participants participants;
    long long const now = 1'000'000'000, late = now + 6'000'000'000;
    participants.seen(kHonest, "honest", now);
    participants.seen(kForger, "forger\n", now);
    EXPECT_GT(participants.tellStrangers(now), 0);
    EXPECT_TRUE(participants.announced(kEpoch, 70, kHonest));
    participants.seen(kHonest, "honest", now);
    EXPECT_LT(participants.tellStrangers(late), 0);
    EXPECT_LT(participants.tellStrangers(late), 0);
    EXPECT_EQ(log.count("forger? is kept out"), 1u);
    EXPECT_EQ(log.records().size(), 1u);
}

}  // namespace
