#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <optional>
#include <vector>

#include "platform/transport/local/Bell.h"
#include "platform/transport/local/ChannelSides.h"
#include "platform/transport/local/Ring.h"

namespace transporttest {
namespace {

using namespace Transport;

constexpr std::size_t kPage = 4096;

/** Both ends of one ring in one process, mapped as they are between two. */
class RingTest : public testing::Test {
protected:
    RingTest() {
        receiving_ = OwnSide::make();
        OwnSide side = OwnSide::make();
        file_ = std::move(side.file);
        sendersView_ = Mapping::of(file_.get(), 0, kPage, Mapping::Access::ReadOnly);
        data_ = side.ring.mapping.data();
        control_ = std::move(side.control);
        writer_.emplace(senderPage(), receiving_.page(), std::move(side.ring));
        reader_.emplace(receiving_.page(),
                        *reinterpret_cast<ControlPage const*>(sendersView_.data()),
                        areaOf(file_.get(), kRingOffset, kSmallestRing));
    }

    static RingArea areaOf(int fd, std::size_t offset, std::uint32_t capacity) {
        RingArea area;
        area.capacity = capacity;
        area.mapping = Mapping::of(fd, offset, capacity, Mapping::Access::ReadOnly);
        return area;
    }

    ControlPage& senderPage() { return *reinterpret_cast<ControlPage*>(control_.data()); }

    bool put(std::size_t size, unsigned char value) {
        std::vector<unsigned char> const bytes(size, value);
        return writer_->put(bytes.data(), size);
    }
    /** Reads one message and checks it. */
    void expectMessage(std::size_t size, unsigned char value) {
        AddressedMessage message;
        RingReader::Result result = reader_->next(message);
        while (result == RingReader::Result::Piece)
            result = reader_->next(message);
        ASSERT_EQ(result, RingReader::Result::Message);
        ASSERT_EQ(message.size(), size);
        for (std::size_t i = 0; i < size; ++i)
            ASSERT_EQ(message.buf()[i], value);
    }
    RingReader::Result next() {
        AddressedMessage message;
        return reader_->next(message);
    }
    /** Goes on in a ring of four times the size. */
    void grow() {
        std::uint32_t const capacity = writer_->capacity() * 4;
        Descriptor const file = makeSealedFile(capacity);
        RingArea area;
        area.capacity = capacity;
        area.mapping = Mapping::of(file.get(), 0, capacity, Mapping::Access::ReadWrite);
        nextArea_ = areaOf(file.get(), 0, capacity);
        writer_->goOnIn(std::move(area));
    }

    OwnSide receiving_;
    Mapping control_;
    Mapping sendersView_;
    Descriptor file_;
    RingArea nextArea_;
    unsigned char* data_ = nullptr;  // the sender's, where the ring begins
    std::optional<RingWriter> writer_;
    std::optional<RingReader> reader_;
};

TEST_F(RingTest, MessagesOfAllSizesPassInOrderWhereverTheRingWraps) {
    std::deque<std::pair<std::size_t, unsigned char>> expected;
    std::size_t size = 0;
    unsigned char value = 0;
    for (int round = 0; round < 3000; ++round) {
        size = (size * 7 + 13) % 3001;
        while (!put(size, ++value)) {
            --value;
            ASSERT_FALSE(expected.empty()) << "an empty ring is full";
            expectMessage(expected.front().first, expected.front().second);
            expected.pop_front();
        }
        expected.emplace_back(size, value);
    }
    for (auto const& [expectedSize, expectedValue] : expected)
        expectMessage(expectedSize, expectedValue);
    EXPECT_EQ(next(), RingReader::Result::Nothing);
    EXPECT_TRUE(writer_->allTaken());
}

TEST_F(RingTest, ALargerRingTakesOverWithoutALossOrAChangeOfOrder) {
    unsigned char value = 0;
    while (put(1000, ++value)) {
    }
    grow();
    ASSERT_TRUE(put(30'000, 200));
    for (unsigned char i = 1; i < value; ++i)
        expectMessage(1000, i);
    ASSERT_EQ(next(), RingReader::Result::NextRing);
    reader_->goOnIn(std::move(nextArea_));
    expectMessage(30'000, 200);
    EXPECT_EQ(next(), RingReader::Result::Nothing);
    EXPECT_FALSE(writer_->broken());
}

TEST_F(RingTest, ALargeMessagePassesByPieces) {
    std::vector<unsigned char> const bytes(100'000, 9);
    std::uint32_t done = 0;
    AddressedMessage message;
    while (done < bytes.size()) {
        std::uint32_t const piece =
            writer_->putPiece(bytes.data(), static_cast<std::uint32_t>(bytes.size()), done);
        done += piece;
        RingReader::Result const result =
            piece == 0 ? reader_->next(message) : RingReader::Result::Piece;
        ASSERT_EQ(result, RingReader::Result::Piece);
    }
    expectMessage(bytes.size(), 9);
}

TEST_F(RingTest, WhatWasNotTakenIsRecoveredAlsoFromFormerRings) {
    ASSERT_TRUE(put(100, 1));
    ASSERT_TRUE(put(200, 2));
    expectMessage(100, 1);
    grow();
    ASSERT_TRUE(put(20'000, 3));
    MessageQueue queue;
    writer_->recover(queue, 5, 6);
    ASSERT_EQ(queue.count(), 2u);
    AddressedMessage const second = queue.pop();
    EXPECT_EQ(second.size(), 200u);
    EXPECT_EQ(second.originator().value(), 5u);
    EXPECT_EQ(second.destination().value(), 6u);
    EXPECT_EQ(queue.pop().size(), 20'000u);
}

TEST_F(RingTest, NonsenseFromTheSenderIsSeen) {
    struct Case {
        char const* what;
        FrameHead head;
        std::uint32_t tail;
    };
    constexpr std::uint32_t kTooMuch = static_cast<std::uint32_t>(kLargestMessage) + 1;
    Case const cases[] = {
        {"more bytes than a ring holds", {8, 8}, 2 * kLargestRing},
        {"a tail that is no multiple of 8", {8, 8}, 17},
        {"a frame that ends behind the tail", {100, 100}, 16},
        {"a frame larger than the ring", {kSmallestRing, kSmallestRing}, kSmallestRing + 8},
        {"a piece larger than its message", {16, 8}, 24},
        {"a message larger than any", {8, kTooMuch}, 16},
        {"a piece of no bytes", {0, 8}, 8},
        {"a next ring with content", {8, kNextRing}, 16},
    };
    for (Case const& bad : cases) {
        std::memcpy(data_, &bad.head, sizeof bad.head);
        senderPage().tail.store(bad.tail);
        RingReader reader(receiving_.page(), senderPage(),
                          areaOf(file_.get(), kRingOffset, kSmallestRing));
        AddressedMessage message;
        EXPECT_EQ(reader.next(message), RingReader::Result::Garbage) << bad.what;
    }
}

TEST_F(RingTest, APieceOfAnotherMessageInBetweenIsSeen) {
    std::vector<unsigned char> const bytes(60'000, 1);
    ASSERT_GT(writer_->putPiece(bytes.data(), 60'000, 0), 0u);
    ASSERT_EQ(next(), RingReader::Result::Piece);
    ASSERT_TRUE(put(10, 1));
    EXPECT_EQ(next(), RingReader::Result::Garbage);
}

TEST_F(RingTest, NonsenseFromTheReceiverIsSeen) {
    ASSERT_TRUE(put(1000, 1));
    receiving_.page().head.store(0x80000000);
    while (!writer_->broken() && put(1000, 1)) {
    }
    EXPECT_TRUE(writer_->broken());
    EXPECT_FALSE(put(8, 1));
}

TEST_F(RingTest, TheSenderRingsOnceForEachTimeTheReceiverFellAsleep) {
    put(8, 1);
    EXPECT_FALSE(writer_->mustRing());
    reader_->fallAsleep();
    EXPECT_TRUE(writer_->mustRing());
    EXPECT_FALSE(writer_->mustRing());
    reader_->wakeUp();
    EXPECT_FALSE(writer_->mustRing());
    reader_->fallAsleep();
    EXPECT_TRUE(writer_->mustRing());
}

TEST_F(RingTest, TheReceiverRingsOnceForEachWishForSpace) {
    EXPECT_FALSE(reader_->finishBatch());
    writer_->wantSpace();
    EXPECT_TRUE(reader_->finishBatch());
    EXPECT_FALSE(reader_->finishBatch());
}

TEST(SealedFileTest, OnlyASealedFileOfTheRightSizeIsAccepted) {
    Descriptor const file = makeSealedFile(8192);
    EXPECT_TRUE(isSealedFile(file.get(), 8192));
    EXPECT_FALSE(isSealedFile(file.get(), 4096));
    EXPECT_NE(::ftruncate(file.get(), 4096), 0);
    EXPECT_FALSE(isSealedFile(STDERR_FILENO, 8192));
    Mapping const mapped = Mapping::of(file.get(), 0, 8192, Mapping::Access::ReadWrite);
    EXPECT_TRUE(mapped.valid());
    sealWriting(file.get());
    EXPECT_TRUE(Mapping::of(file.get(), 0, 8192, Mapping::Access::ReadOnly).valid());
    EXPECT_FALSE(Mapping::of(file.get(), 0, 8192, Mapping::Access::ReadWrite).valid())
        << "the other side could write into the owner's words";
    EXPECT_TRUE(takeBell(makeBell().get()));
    EXPECT_FALSE(takeBell(file.get()));
}

}  // namespace
}  // namespace transporttest
