#include "reflect/InternalIds.h"

#include <gtest/gtest.h>

namespace {

TEST(InternalIds, takenOrZeroGivesTheNextFreeOne) {
    InternalIds ids;
    EXPECT_EQ(ids.take(100), 100u);
    EXPECT_EQ(ids.take(101), 101u);
    EXPECT_EQ(ids.take(100), 102u);
    EXPECT_EQ(ids.take(0), 1u);
    EXPECT_EQ(ids.take(0xFFFFFFFF), 0xFFFFFFFFu);
    EXPECT_EQ(ids.take(0xFFFFFFFF), 2u) << "after the highest comes the lowest";
}

TEST(InternalIds, idRestsFor65536Registrations) {
    InternalIds ids;
    ids.take(100);
    ids.giveBack(100);
    for (unsigned int i = 0; i < 65536; ++i)
        ASSERT_NE(ids.take(100), 100u) << "registration " << i + 1;
    EXPECT_EQ(ids.take(100), 100u);
}

}  // namespace
