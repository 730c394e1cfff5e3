#include "reflect/InternalIds.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

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

TEST(InternalIds, agreesWithAPlainSetUnderRandomUse) {
    InternalIds ids;
    std::set<std::uint32_t> taken;
    std::vector<std::uint32_t> live;
    std::mt19937 random(4711);
    for (int i = 0; i < 4000; ++i) {
        if (!live.empty() && random() % 3 == 0) {
            std::size_t const which = random() % live.size();
            ids.giveBack(live[which]);  // stays taken: fewer registrations follow than it rests
            live.erase(live.begin() + static_cast<std::ptrdiff_t>(which));
        } else {
            auto expected = static_cast<std::uint32_t>(1 + random() % 5000);
            std::uint32_t const wanted = expected;
            while (taken.count(expected) != 0)
                ++expected;
            ASSERT_EQ(ids.take(wanted), expected);
            taken.insert(expected);
            live.push_back(expected);
        }
    }
}

}  // namespace
