#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "platform/transport/MessagePool.h"
#include "transport/AddressedMessage.h"

namespace transporttest {
namespace {

using Transport::AddressedMessage;
using Transport::MessagePool;

bool isZero(AddressedMessage const& message) {
    return std::all_of(message.buf(), message.buf() + message.size(),
                       [](unsigned char byte) { return byte == 0; });
}

TEST(MessageTest, BuffersAreZeroAlsoWhenTheyWereUsedBefore) {
    for (std::size_t const size : {0u, 1u, 95u, 96u, 97u, 5000u, 70'000u, 600'000u}) {
        for (int round = 0; round < 2; ++round) {
            AddressedMessage message = AddressedMessage::allocate(size);
            ASSERT_FALSE(message.empty());
            ASSERT_EQ(message.size(), size);
            EXPECT_TRUE(isZero(message));
            EXPECT_EQ(message.originator().value(), 0u);
            EXPECT_EQ(message.destination().value(), 0u);
            std::fill(message.buf(), message.buf() + size, static_cast<unsigned char>(0xA5));
            message.originator(1u);
            message.destination(2u);
        }
    }
}

TEST(MessageTest, ASoleOwnerExtendsInPlaceWithinTheReservedRoom) {
    AddressedMessage message = AddressedMessage::allocate(10, 1000);
    unsigned char const* const place = message.buf();
    message.buf()[9] = 1;
    ASSERT_TRUE(message.extend(1000));
    EXPECT_EQ(message.buf(), place);
    EXPECT_EQ(message.size(), 1000u);
    EXPECT_EQ(message.buf()[9], 1);
    EXPECT_TRUE(message.extend(20));
    EXPECT_TRUE(message.extend(600));

    AddressedMessage const other = message;
    EXPECT_FALSE(message.extend(700)) << "somebody else sees the buffer";
    EXPECT_EQ(message.size(), 600u);
    EXPECT_FALSE(AddressedMessage::allocate(10).extend(100'000));
    EXPECT_FALSE(AddressedMessage().extend(0));
}

TEST(MessagePoolTest, WhatAThreadKeptIsThereForOthersAfterItsEnd) {
    auto allocateSome = [] {
        std::vector<AddressedMessage> some;
        for (int i = 0; i < 20; ++i)
            some.push_back(AddressedMessage::allocate(1000));
    };
    std::thread(allocateSome).join();
    unsigned long const before = MessagePool::heapAllocations();
    for (int i = 0; i < 10; ++i)
        std::thread(allocateSome).join();
    EXPECT_EQ(MessagePool::heapAllocations(), before);
}

TEST(MessagePoolTest, ABurstIsNotKeptForEver) {
    {
        std::vector<AddressedMessage> burst;
        for (int i = 0; i < 20'000; ++i)
            burst.push_back(AddressedMessage::allocate(1000));
        for (int i = 0; i < 200; ++i)
            burst.push_back(AddressedMessage::allocate(200'000));
    }
    EXPECT_LE(MessagePool::commonBytes(), 5u * 1024 * 1024);
    {
        std::vector<AddressedMessage> burst;
        for (std::size_t size = 100; size < 500'000; size *= 2)
            for (std::size_t all = 0; all < 4u * 1024 * 1024; all += size)
                burst.push_back(AddressedMessage::allocate(size));
    }
    EXPECT_LE(MessagePool::commonBytes(), 8u * 1024 * 1024) << "of all sizes";
}

}  // namespace
}  // namespace transporttest
