#include "reflect/broker/InternalIds.h"

#include <gtest/gtest.h>

namespace {

TEST(InternalIds, takenOrZeroGivesTheNextFreeOne) {
    handlerthreads::trustPermission();
    InternalIds ids;
    EXPECT_EQ(ids.take(100), 100u);
    EXPECT_EQ(ids.take(101), 101u);
    EXPECT_EQ(ids.take(100), 102u);
    EXPECT_EQ(ids.take(0), 1u);
    EXPECT_EQ(ids.take(0xFFFFFFFF), 0xFFFFFFFFu);
    EXPECT_EQ(ids.take(0xFFFFFFFF), 2u) << "after the highest comes the lowest";
}

TEST(InternalIds, idRestsFor65536Registrations) {
    handlerthreads::trustPermission();
    InternalIds ids;
    ids.take(100);
    ids.giveBack(100, nullptr);
    for (unsigned int i = 0; i < 65536; ++i)
        ASSERT_NE(ids.take(100), 100u) << "registration " << i + 1;
    EXPECT_EQ(ids.take(100), 100u);
}

TEST(InternalIds, restingIdIsThatOfItsOwnerOnly) {
    handlerthreads::trustPermission();
    InternalIds ids;
    int owner = 0;
    int other = 0;
    ids.take(100);
    ids.take(101);
    ids.giveBack(100, &owner);
    ids.giveBack(101, &other);
    EXPECT_FALSE(ids.takeAgain(100, &other));
    EXPECT_FALSE(ids.takeAgain(102, &owner));
    EXPECT_TRUE(ids.takeAgain(100, &owner));
    EXPECT_FALSE(ids.takeAgain(100, &owner)) << "it is in use";
    for (unsigned int i = 0; i < 70000; ++i)
        ASSERT_NE(ids.take(100), 100u) << "and stays so";
}

}  // namespace
