#include "reflect/TreflectMessage.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "LogCapture.h"

using testsupport::LogCapture;

namespace {

TreflectMessage addressed(unsigned int destination, unsigned int originator) {
    TreflectMessage message(nullptr, 0x1234ABCD, 4);
    message.addressed().destination(destination);
    message.addressed().originator(originator);
    message.type(TreflectMessage::tPayload);
    message.kind(TreflectMessage::kRequest);
    return message;
}

TEST(Message, HeaderIsThreeBigEndianNumbers) {
    TreflectMessage message(nullptr, 0x01020304, 2);
    EXPECT_EQ(TreflectMessage::tUndef, message.type());
    message.type(TreflectMessage::tPerfCounters);
    message.kind(TreflectMessage::kResponseFailure);
    message.buf()[1] = 0xEE;
    Transport::AddressedMessage const whole = message;
    unsigned char const expected[] = {1, 2, 3, 4, 0, 0, 0, 10, 0, 0, 0, 5, 0, 0xEE};
    ASSERT_EQ(sizeof expected, whole.size());
    EXPECT_EQ(0, std::memcmp(expected, whole.buf(), sizeof expected));
    TreflectMessage const arrived(whole);
    EXPECT_EQ(0x01020304u, arrived.transactionId());
    EXPECT_EQ(TreflectMessage::tPerfCounters, arrived.type());
    EXPECT_EQ(TreflectMessage::kResponseFailure, arrived.kind());
    EXPECT_EQ(2u, arrived.size());
}

TEST(Message, LabelsHaveSixCharacters) {
    char const* const kinds[] = {"kUndef", "kMsg  ", "kRequ.", "kResp.",
                                 "kNoDes", "kReFai", "k?????"};
    char const* const types[] = {"tUndef", "tRslve", "tPayld", "tOCN  ", "tODN  ", "tOCNSU",
                                 "tODNSU", "tOCNUN", "tODNUN", "tOrbAp", "tPfCnt", "t?????"};
    TreflectMessage const message(nullptr, 0, 0);
    for (unsigned int i = 0; i < std::size(kinds); ++i)
        EXPECT_EQ(kinds[i], message.kindToStr(static_cast<TreflectMessage::kind_t>(i)));
    for (unsigned int i = 0; i < std::size(types); ++i)
        EXPECT_EQ(types[i], message.typeToStr(static_cast<TreflectMessage::type_t>(i)));
    EXPECT_EQ("t?????", message.typeToStr(static_cast<TreflectMessage::type_t>(0xFFFFFFFFu)));
}

TEST(Message, LastFailingCheckIsReported) {
    struct {
        unsigned int destination, originator, type, kind, expected;
        int error;
        bool accepted;
    } const cases[] = {
        {5, 6, 2, 2, 0, 0, true},  {5, 6, 2, 2, 2, 0, true},  {0, 6, 2, 2, 2, 1, true},
        {5, 0, 2, 2, 2, 2, false}, {5, 5, 2, 2, 2, 3, false}, {0, 0, 2, 2, 2, 3, false},
        {5, 6, 0, 2, 2, 4, false}, {5, 6, 2, 0, 0, 5, false}, {5, 6, 0, 0, 0, 5, false},
        {5, 6, 2, 2, 3, 6, false}, {0, 0, 0, 0, 3, 6, false}, {0, 6, 11, 6, 0, 1, true},
    };
    for (auto const& c : cases) {
        TreflectMessage message = addressed(c.destination, c.originator);
        message.type(static_cast<TreflectMessage::type_t>(c.type));
        message.kind(static_cast<TreflectMessage::kind_t>(c.kind));
        LogCapture const log;
        bool const accepted = message.testValidation(
            static_cast<TreflectMessage::kind_t>(c.expected), 0, "", false, 0);
        EXPECT_EQ(c.accepted, accepted) << c.error;
        std::string const prefix = "    ReflMsg err= " + std::to_string(c.error) + ": ";
        EXPECT_EQ(c.error ? 1u : 0u, log.count(3, prefix)) << prefix;
        EXPECT_EQ(c.error ? 1u : 0u, log.records().size());
    }
}

TEST(Message, ReportsItsHeader) {
    LogCapture const log;
    EXPECT_FALSE(
        addressed(0x0401ABCD, 0x12).testValidation(TreflectMessage::kResponse, 0, "", false, 0));
    EXPECT_TRUE(addressed(0x0401ABCD, 0x12)
                    .testValidation(TreflectMessage::kRequest, 123, "here", true, 9));
    auto const records = log.records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(
        "    ReflMsg err= 6: tPayld, kRequ.(kResp.), des=0401ABCD, org=00000012, "
        "trAcId=1234ABCD ( 0: )",
        records[0].text);
    EXPECT_EQ(3, records[0].level);
    EXPECT_EQ(
        "    ReflMsg output: tPayld, kRequ.(kRequ.), des=0401ABCD, org=00000012, "
        "trAcId=1234ABCD (123: here)",
        records[1].text);
    EXPECT_EQ(5, records[1].level);
    EXPECT_EQ("ReflectMessage", records[1].source);
}

TEST(Message, ResizedCopyKeepsTheHeaderAndWhatFits) {
    TreflectMessage const small = [] {
        TreflectMessage message = addressed(5, 6);
        std::memcpy(message.buf(), "abcd", 4);
        return message;
    }();
    TreflectMessage grown(nullptr, small, 10);
    ASSERT_EQ(10u, grown.size());
    EXPECT_EQ(0, std::memcmp("abcd\0\0\0\0\0\0", grown.buf(), 10));
    EXPECT_EQ(small.transactionId(), grown.transactionId());
    EXPECT_EQ(small.type(), grown.type());
    EXPECT_EQ(small.kind(), grown.kind());
    EXPECT_TRUE(grown.extend(20)) << "room for growth is kept ready";
    EXPECT_EQ(20u, grown.size());
    TreflectMessage const cut(nullptr, small, 2);
    ASSERT_EQ(2u, cut.size());
    EXPECT_EQ(0, std::memcmp("ab", cut.buf(), 2));
    EXPECT_EQ(small.transactionId(), cut.transactionId());
}

TEST(Message, WithoutABufferIsAllZeros) {
    constexpr unsigned int tooLarge =
        static_cast<unsigned int>(Transport::kLargestMessage) - TreflectMessage::kHeaderSize + 1;
    for (unsigned int const size : {tooLarge, 0xFFFFFFF5u, 0xFFFFFFFFu}) {
        TreflectMessage message(nullptr, 7, size);
        message.kind(TreflectMessage::kMsg);
        EXPECT_TRUE(message.empty());
        EXPECT_EQ(0u, message.size());
        EXPECT_EQ(nullptr, message.buf());
        EXPECT_EQ(0u, message.transactionId());
        EXPECT_EQ(TreflectMessage::kUndef, message.kind());
        EXPECT_FALSE(message.isSoleOwner());
        EXPECT_FALSE(message.testValidation(TreflectMessage::kUndef, 0, nullptr, true, 0));
        EXPECT_TRUE(TreflectMessage(nullptr, addressed(5, 6), size).empty());
    }
    EXPECT_EQ(tooLarge - 1, TreflectMessage(nullptr, 0, tooLarge - 1).size());
}

TEST(Message, CutHeaderReadsAsZeros) {
    for (unsigned int bytes = 0; bytes < TreflectMessage::kHeaderSize; ++bytes) {
        auto whole = Transport::AddressedMessage::allocate(bytes);
        std::memset(whole.buf(), 0xFF, bytes);
        TreflectMessage message(whole);
        EXPECT_EQ(0u, message.size());
        EXPECT_EQ(nullptr, message.buf());
        EXPECT_EQ(TreflectMessage::kUndef, message.kind());
        message.kind(TreflectMessage::kMsg);
        EXPECT_EQ(0u, message.transactionId());
        TreflectMessage const copy(nullptr, message, 4);
        EXPECT_EQ(4u, copy.size());
        EXPECT_EQ(TreflectMessage::tUndef, copy.type());
    }
}

TEST(MessagePool, MemoryOfAFreedMessageServesTheNextAndABurstIsNotKept) {
    std::vector<std::unique_ptr<TreflectMessage>> burst;
    for (unsigned int i = 0; i < 5000; ++i)
        burst.emplace_back(new TreflectMessage(nullptr, i, 4));
    burst.clear();
    auto const first = reinterpret_cast<std::uintptr_t>(new TreflectMessage(nullptr, 1, 1));
    delete reinterpret_cast<TreflectMessage*>(first);
    std::unique_ptr<TreflectMessage> const second(new (std::nothrow)
                                                      TreflectMessage(nullptr, 2, 1));
    EXPECT_EQ(first, reinterpret_cast<std::uintptr_t>(second.get()));
}

}  // namespace
