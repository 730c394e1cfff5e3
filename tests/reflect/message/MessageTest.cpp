#include "reflect/TreflectMessage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

#include "LogCapture.h"

using testsupport::LogCapture;

namespace {

TreflectMessage addressed(unsigned int destination, unsigned int originator) {
    TreflectMessage message(nullptr, 0x1234ABCD, 4);
    message.addressed().destination(destination);
    message.addressed().originator(originator);
    message.type(TreflectMessage::tPayload);
    message.kind(TreflectMessage::kRequest);
    std::memcpy(message.buf(), "abcd", 4);
    return message;
}

// A transport message can be given wherever one of ours is asked for, and the other way round.
static_assert(std::is_convertible_v<Transport::AddressedMessage, TreflectMessage>);
static_assert(std::is_convertible_v<TreflectMessage, Transport::AddressedMessage>);

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
        EXPECT_EQ(c.accepted,
                  message.testValidation(static_cast<TreflectMessage::kind_t>(c.expected), 0, "",
                                         false, 0));
        std::string const prefix = "    ReflMsg err= " + std::to_string(c.error) + ": ";
        EXPECT_EQ(c.error ? 1u : 0u, log.count(3, prefix)) << prefix;
        EXPECT_EQ(c.error ? 1u : 0u, log.records().size());
    }
}

TEST(Message, ReportsItsHeader) {
    LogCapture const log;
    TreflectMessage const message = addressed(0x0401ABCD, 0x12);
    EXPECT_FALSE(message.testValidation(TreflectMessage::kResponse, 0, "", false, 0));
    EXPECT_TRUE(message.testValidation(TreflectMessage::kRequest, 123, "here", true, 9));
    EXPECT_EQ(log.texts(),
              (std::vector<std::string>{"    ReflMsg err= 6: tPayld, kRequ.(kResp.), des=0401ABCD, "
                                        "org=00000012, trAcId=1234ABCD ( 0: )",
                                        "    ReflMsg output: tPayld, kRequ.(kRequ.), des=0401ABCD, "
                                        "org=00000012, trAcId=1234ABCD (123: here)"}));
    EXPECT_EQ(5, log.records().back().level);
    EXPECT_EQ("ReflectMessage", log.records().back().source);
}

TEST(Message, ResizedCopyKeepsTheHeaderAndWhatFits) {
    TreflectMessage const small = addressed(5, 6);
    for (unsigned int const size : {10u, 2u}) {
        TreflectMessage resized(nullptr, small, size);
        ASSERT_EQ(size, resized.size());
        EXPECT_EQ(0, std::memcmp("abcd", resized.buf(), std::min(size, 4u)));
        EXPECT_EQ(small.transactionId(), resized.transactionId());
        EXPECT_EQ(small.type(), resized.type());
        EXPECT_EQ(small.kind(), resized.kind());
    }
}

TEST(Message, WithoutAWholeHeaderIsAllZeros) {
    constexpr unsigned int tooLarge =
        static_cast<unsigned int>(Transport::kLargestMessage) - TreflectMessage::kHeaderSize + 1;
    std::vector<TreflectMessage> messages;
    for (unsigned int const size : {tooLarge, 0xFFFFFFF5u, 0xFFFFFFFFu}) {
        messages.emplace_back(nullptr, 7, size);
        EXPECT_TRUE(messages.back().empty());
        EXPECT_TRUE(TreflectMessage(nullptr, addressed(5, 6), size).empty());
    }
    for (unsigned int bytes = 0; bytes < TreflectMessage::kHeaderSize; ++bytes) {
        auto whole = Transport::AddressedMessage::allocate(bytes);
        std::memset(whole.buf(), 0xFF, bytes);
        messages.emplace_back(whole);
    }
    for (TreflectMessage& message : messages) {
        message.kind(TreflectMessage::kMsg);
        EXPECT_EQ(0u, message.size());
        EXPECT_EQ(nullptr, message.buf());
        EXPECT_EQ(0u, message.transactionId());
        EXPECT_EQ(TreflectMessage::kUndef, message.kind());
        EXPECT_FALSE(message.testValidation(TreflectMessage::kUndef, 0, nullptr, true, 0));
        EXPECT_EQ(TreflectMessage::tUndef, TreflectMessage(nullptr, message, 4).type());
    }
    EXPECT_EQ(tooLarge - 1, TreflectMessage(nullptr, 0, tooLarge - 1).size());
}

}  // namespace
