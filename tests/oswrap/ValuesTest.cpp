#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <set>
#include <vector>

#include "Threads.h"
#include "oswrap/Memory.h"
#include "oswrap/NetNumVar.h"
#include "oswrap/TimeSpec.h"
#include "oswrap/UniqueIdGen.h"

using OSWrap::TimeSpec;

TEST(TimeSpec, keepsNanosecondsInRange) {
    EXPECT_EQ(TimeSpec(1, 2'500'000'000), TimeSpec(3, 500'000'000));
    EXPECT_EQ(TimeSpec(0, -1), TimeSpec(-1, 999'999'999));
    EXPECT_EQ(TimeSpec(5, 100) - TimeSpec(2, 200), TimeSpec(2, 999'999'900));
    EXPECT_EQ((TimeSpec(1, 0) - TimeSpec(1, 1)).totalNanoseconds(), -1);
    EXPECT_LT(TimeSpec(1, 999'999'999), TimeSpec(2, 0));
}

TEST(TimeSpec, infiniteStaysInfinite) {
    TimeSpec const infinite = TimeSpec::INFINITETIME;
    EXPECT_TRUE((infinite + TimeSpec(30, 0)).isInfinite());
    EXPECT_TRUE((TimeSpec(30, 0) + infinite).isInfinite());
    EXPECT_TRUE((infinite - TimeSpec(30, 0)).isInfinite());
    EXPECT_GT(infinite, TimeSpec(4'000'000'000, 0));
    EXPECT_EQ(infinite.totalNanoseconds(), LLONG_MAX);
    EXPECT_GT(infinite.toTimespec().tv_sec, 2'000'000'000);
    EXPECT_LT(TimeSpec(-9'000'000'000'000, 0).toTimespec().tv_sec, -2'000'000'000);
}

TEST(NetNumVar, liesInNetworkByteOrder) {
    OSWrap::NetNumVar<unsigned int> number(0x01020304U);
    EXPECT_EQ(std::memcmp(&number, "\x01\x02\x03\x04", 4), 0);
    EXPECT_EQ(static_cast<unsigned int>(number), 0x01020304U);
}

TEST(UniqueIdGen, givesNoNumberTwiceAndNeverZero) {
    constexpr int kThreads = 4;
    constexpr int kIds = 2000;
    std::vector<std::vector<unsigned int>> ids(kThreads);
    testsupport::TestThreads(kThreads, [&ids](std::size_t thread) {
        for (int i = 0; i < kIds; ++i)
            ids[thread].push_back(OSWrap::UniqueIdGen::instance().getId());
    });
    std::set<unsigned int> all;
    for (std::vector<unsigned int> const& some : ids)
        all.insert(some.begin(), some.end());
    EXPECT_EQ(all.size(), static_cast<std::size_t>(kThreads * kIds));
    EXPECT_EQ(all.count(0), 0u);
}

TEST(Memory, isWhatTheSystemTells) {
    long const before = oscwGetActorSize();
    EXPECT_GT(before, 100'000);
    std::size_t const size = 32U << 20;
    std::vector<char> const touched(size, 'x');
    EXPECT_GT(oscwGetActorSize(), before + (16L << 20));

    std::ifstream meminfo("/proc/meminfo");
    std::string name;
    unsigned long long total = 0;
    ASSERT_TRUE(meminfo >> name >> total);
    ASSERT_EQ(name, "MemTotal:");
    long const available = oscwGetUnitFreeMem();
    EXPECT_GT(available, 1L << 20);
    EXPECT_LE(static_cast<unsigned long long>(available), total * 1024);
    EXPECT_EQ(touched.back(), 'x');
}
