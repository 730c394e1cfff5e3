#include "ipprmi/TipprmiStream.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <set>

#include "LogCapture.h"
#include "WireText.h"
#include "ipprmi/TipprmiSequence.h"

using testsupport::LogCapture;

namespace {

constexpr int kLargestData = static_cast<int>(Transport::kLargestMessage) - 12 - 4;

/** A stream over an arrived payload, which claims `written` data bytes and has `room` of them. */
TipprmiStream arrived(unsigned int written, unsigned int room) {
    TreflectMessage message(nullptr, 7, 4 + room);
    for (unsigned int i = 0; i < 4; ++i)
        message.buf()[i] = static_cast<unsigned char>(written >> (24 - 8 * i));
    return TipprmiStream(message, false);
}

TEST(Stream, TextsNamespacesAndNestedStreamsAreWrittenAndReadAsWhatTheyAre) {
    EXPECT_EQ("00000000", wire::form(static_cast<char const*>(nullptr)));
    EXPECT_EQ("00000000", wire::form(TipprmiStream(10)));
    TipprmiStream stream(1);
    stream << NSID_NODE << "abc" << TipprmiStream("\xAA\xBB", 2) << 77u;
    EXPECT_EQ("000000020000000361626300000002AABB0000004D", wire::hex(stream));
    NamespaceId ns = NSID_UNIT;
    char* text = nullptr;
    TipprmiStream nested(1);
    unsigned int after = 0;
    stream >> ns >> text >> nested >> after;
    std::unique_ptr<char[]> const owned(text);
    EXPECT_EQ(NSID_UNIT, ns) << "a namespace is consumed, not taken";
    EXPECT_STREQ("abc", text);
    EXPECT_EQ("AABB", wire::hex(nested));
    EXPECT_EQ(77u, after);
}

TEST(Stream, ReadPastTheDataIsToldOnceAndYieldsZeros) {
    TipprmiStream stream("\x01\x02\x03", 3);
    stream.msg().type(TreflectMessage::tPayload);
    LogCapture log;
    unsigned int number = 42;
    std::string text = "x";
    bool truth = true;
    char* characters = nullptr;
    unsigned char raw[2] = {1, 1};
    stream >> number >> text >> truth >> characters;
    stream.unmarshall(raw, 2);
    std::unique_ptr<char[]> const owned(characters);

    EXPECT_EQ(0u, number);
    EXPECT_EQ("", text);
    EXPECT_FALSE(truth);
    EXPECT_STREQ("", characters);
    EXPECT_EQ(0, raw[0] + raw[1]);
    // The broker, which has just started, may log on threads of its own.
    EXPECT_EQ(1u, log.count("out of bounds"));
    EXPECT_EQ(1u, log.count("    ReflMsg "));
    auto const record = log.find("out of bounds");
    ASSERT_TRUE(record);
    EXPECT_EQ(
        "::unmarshall() request out of bounds: getDataSize(3)-optr_(0) < size(4), iptr_=3, limit=3",
        record->text);
    EXPECT_EQ(3, record->level);
    EXPECT_EQ("IPPRMI_stream", record->source);

    stream.rewind();
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    stream.clear();
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
}

TEST(Stream, NegativeLengthIsAnEmptyValueOfFourBytes) {
    TipprmiStream stream(100);
    stream << -5 << INT_MIN << -1 << 77u;
    std::string text = "old";
    char* characters = nullptr;
    TipprmiStream nested("\x01", 1);
    unsigned int after = 0;
    stream >> text >> characters >> nested >> after;
    std::unique_ptr<char[]> const owned(characters);
    EXPECT_EQ("", text);
    EXPECT_STREQ("", characters);
    EXPECT_EQ("01", wire::hex(nested)) << "an empty nested stream leaves the target alone";
    EXPECT_EQ(77u, after);
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
}

TEST(Stream, MissingBytesOfAKnownLengthReadAsZeros) {
    TipprmiStream stream("\x00\x00\x00\x03\xAA\xBB", 6);
    std::string text;
    stream >> text;
    EXPECT_EQ(std::string(3, '\0'), text);
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    TipprmiStream again("\x00\x00\x00\x03\xAA\xBB", 6);
    TipprmiStream nested("\x01", 1);
    again >> nested;
    EXPECT_EQ("000000", wire::hex(nested));
}

TEST(Stream, AbsurdLengthIsNotAllocated) {
    for (int const length : {TipprmiStream::kAcceptedLength + 1, INT_MAX}) {
        TipprmiStream stream(100);
        stream << length << 1u;
        std::string text = "old";
        LogCapture const log;
        stream >> text;
        EXPECT_EQ("", text);
        EXPECT_TRUE(stream.hasUnmarshallingFailed());
        EXPECT_EQ(1u, log.count(3, "out of bounds"));

        stream.clear();
        stream << length;
        TipprmiStream nested("\x01", 1);
        stream >> nested;
        EXPECT_EQ("01", wire::hex(nested));
        EXPECT_TRUE(stream.hasUnmarshallingFailed());
    }
    TipprmiStream honoured(100);
    honoured << TipprmiStream::kAcceptedLength;
    std::string text;
    honoured >> text;
    EXPECT_EQ(static_cast<std::size_t>(TipprmiStream::kAcceptedLength), text.size());

    TipprmiStream large(100);
    std::string const three(3 * 1024 * 1024, 'x');
    large << three;
    large >> text;
    EXPECT_EQ(three, text) << "a great length is taken when its bytes are there";
}

TEST(Stream, ClaimedSizeBeyondTheBufferIsNotBelieved) {
    for (unsigned int const claimed : {9u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        LogCapture const log;
        TipprmiStream stream = arrived(claimed, 8);
        if (claimed == 9u) {
            EXPECT_TRUE(log.contains("iptr_(9) out of range(8);this="));
        }
        EXPECT_EQ(8, stream.getDataSize());
        unsigned int number = 0;
        stream >> number >> number;
        EXPECT_FALSE(stream.hasUnmarshallingFailed());
        EXPECT_EQ(16u, wire::form(stream).size() - 8) << "nested, it is as long as its buffer";
        stream >> number;
        EXPECT_TRUE(stream.hasUnmarshallingFailed());
        stream << 1u;
        EXPECT_EQ(claimed == 9u ? 13 : 8, stream.getDataSize());
    }
}

TEST(Stream, ClaimedSizeIsNotToldAgainAndAgain) {
    LogCapture const log;
    TipprmiStream stream = arrived(0x7FFFFFFF, 4);
    TipprmiSequence<unsigned int> numbers;
    stream << 0u;
    stream.unmarshall(nullptr, 5);
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    std::size_t const told = log.count("out of range(");
    EXPECT_GE(told, 1u);
    EXPECT_LT(told, 5u) << "of what passes without a limit";
    stream >> numbers;
    stream.unmarshall(nullptr, 0);
    EXPECT_EQ(told, log.count("out of range(")) << "a stream that has failed is silent";

    TipprmiStream readable = arrived(0x7FFFFFFF, 4000);
    for (unsigned int i = 0, number = 0; i < 1000; ++i)
        readable >> number;
    EXPECT_FALSE(readable.hasUnmarshallingFailed());
    EXPECT_LT(log.count("out of range("), 50u) << "and one that has not says it now and then";
}

TEST(Stream, FailedReadIsNoDroppedWrite) {
    TipprmiStream stream("abc", 3);
    stream.unmarshall(nullptr, 4);
    stream << 1u;
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    EXPECT_FALSE(stream.hasMarshallingFailed());
    EXPECT_EQ("61626300000001", wire::hex(stream));
    stream.marshall(nullptr, kLargestData);
    EXPECT_TRUE(stream.hasMarshallingFailed());
    EXPECT_TRUE(TipprmiStream(stream).hasMarshallingFailed());
    stream.clear();
    EXPECT_FALSE(stream.hasMarshallingFailed());
}

TEST(Stream, CapacityGrowsToExactlyWhatAWriteNeedsAndMovesTheBufferRarely) {
    TipprmiStream stream(6);
    stream.msg().transactionId(0x1234);
    stream << 1u << 2u;
    EXPECT_EQ(8, stream.getDataLimit());
    stream << std::string(1000, 'x');
    EXPECT_EQ(1012, stream.getDataLimit());
    EXPECT_EQ(0x1234u, stream.msg().transactionId()) << "the header moves along";
    EXPECT_EQ("0000000100000002000003E878", wire::hex(stream).substr(0, 26));
    stream.setData("ab", 2);
    EXPECT_EQ("6162", wire::hex(stream));
    std::set<unsigned char const*> places;
    for (unsigned int i = 0; i < 100000; ++i) {
        stream << i;
        places.insert(stream.getDataPtr());
    }
    EXPECT_LE(places.size(), 20u);
}

TEST(Stream, ItsOwnBytesMayBeWrittenIntoIt) {
    for (int round = 0; round < 12; ++round) {
        TipprmiStream stream(1);
        stream << std::string(static_cast<std::size_t>(1) << round, 'q');
        std::string const before = wire::hex(stream);
        TipprmiStream const sharing(stream);  // keeps the old buffer's sole ownership away
        stream.marshall(stream.getDataPtr(), stream.getDataSize());
        EXPECT_EQ(before + before, wire::hex(stream));
        stream.setData(stream.getDataPtr() + 4, 1);
        EXPECT_EQ("71", wire::hex(stream));
        stream << stream;
        EXPECT_EQ("710000000171", wire::hex(stream));
    }
}

TEST(Stream, WriteThatFindsNoRoomIsDropped) {
    std::string const most(static_cast<std::size_t>(kLargestData) - 4, 'm');
    TipprmiStream stream(1);
    stream << most;
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    LogCapture const log;
    stream << true;
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    EXPECT_EQ(kLargestData, stream.getDataSize());
    EXPECT_TRUE(log.contains("out of range(" + std::to_string(kLargestData) + ");this="));

    TipprmiStream outer(100);
    outer << stream;
    EXPECT_TRUE(outer.hasUnmarshallingFailed());

    TipprmiStream incomplete(100);
    incomplete << std::string(Transport::kLargestMessage, 'x');
    TipprmiStream around(100);
    around << incomplete;
    EXPECT_TRUE(around.hasUnmarshallingFailed()) << "a gap inside is a gap outside";

    TipprmiStream kept("abc", 3);
    kept.setData(most.data(), INT_MAX);
    EXPECT_TRUE(kept.hasUnmarshallingFailed());
    EXPECT_EQ("616263", wire::hex(kept));
    EXPECT_TRUE(TipprmiStream(most.data(), INT_MAX).hasUnmarshallingFailed());
    TipprmiStream huge(INT_MAX);
    huge << 1u;
    EXPECT_EQ("00000001", wire::hex(huge)) << "what fits is taken";
}

}  // namespace
