#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <optional>
#include <random>
#include <vector>

#include "AllocationCount.h"
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

    static RingArea areaOf(int fd, std::size_t offset, std::uint32_t capacity,
                           Mapping::Access access = Mapping::Access::ReadOnly) {
        RingArea area;
        area.capacity = capacity;
        area.mapping = Mapping::of(fd, offset, capacity, access);
        return area;
    }

    ControlPage& senderPage() { return *reinterpret_cast<ControlPage*>(control_.data()); }

    bool put(std::size_t size, unsigned char value) {
        std::vector<unsigned char> const bytes(size, value);
        return writer_->put(bytes.data(), size);
    }
    RingReader::Result next() {
        AddressedMessage message;
        return reader_->next(message);
    }

    OwnSide receiving_;
    Mapping control_;
    Mapping sendersView_;
    Descriptor file_;
    unsigned char* data_ = nullptr;  // the sender's, where the ring begins
    std::optional<RingWriter> writer_;
    std::optional<RingReader> reader_;
};

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
        {"a message sent back larger than any", {8, kSentBack | kTooMuch}, 16},
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

TEST_F(RingTest, APieceThatIsSentBackOfAMessageThatIsNotIsSeen) {
    std::vector<unsigned char> const bytes(60'000, 1);
    ASSERT_GT(writer_->putPiece(bytes.data(), 60'000, 0), 0u);
    ASSERT_EQ(next(), RingReader::Result::Piece);
    ASSERT_EQ(writer_->putPiece(bytes.data(), 60'000, 59'900, kSentBack), 100u);
    EXPECT_EQ(next(), RingReader::Result::Garbage);
}

TEST_F(RingTest, WhatIsNotTakenComesBackWhateverThePeerSaysThatItHasTaken) {
    // As if the peer had had its own words sent back to it: each looks like the head of a frame
    // that ends before the tail, but far behind the ring.
    FrameHead const lie{100'000, 100'000};
    std::vector<unsigned char> bytes(1000);
    for (std::size_t i = 0; i < bytes.size(); i += sizeof lie)
        std::memcpy(bytes.data() + i, &lie, sizeof lie);
    ASSERT_TRUE(writer_->put(bytes.data(), bytes.size()));
    Descriptor const larger = makeSealedFile(kUsualRing);
    RingArea area = areaOf(larger.get(), 0, kUsualRing, Mapping::Access::ReadWrite);
    area.starts = FrameStarts(kUsualRing);
    writer_->goOnIn(std::move(area));
    constexpr std::size_t kMore = 200;
    for (std::size_t i = 0; i < kMore; ++i)
        ASSERT_TRUE(put(1000, 7));
    receiving_.page().head.store(24);
    MessageChain back;
    ASSERT_TRUE(writer_->giveUp().recover(back, 1, 2));
    ASSERT_EQ(back.count(), kMore + 1);
    for (std::size_t i = 0; i <= kMore; ++i) {
        AddressedMessage const message = back.pop();
        ASSERT_EQ(message.size(), 1000u);
        EXPECT_EQ(message.buf()[999], i == 0 ? bytes[999] : 7);
    }
}

TEST_F(RingTest, WhatIsSentBackIsToldFromTheRestAndIsThePeersAlsoWhenItIsNotTaken) {
    std::vector<unsigned char> const bytes(20'000, 7);
    auto const twice = [&] {
        return put(100, 1) && writer_->put(bytes.data(), 200, kSentBack) && put(300, 3);
    };
    ASSERT_TRUE(twice());
    for (std::size_t const size : {100u, 200u, 300u}) {
        AddressedMessage message;
        ASSERT_EQ(reader_->next(message), RingReader::Result::Message);
        EXPECT_EQ(message.size(), size);
        EXPECT_EQ(reader_->isSentBack(), size == 200);
        reader_->keep();
    }
    ASSERT_TRUE(twice());
    ASSERT_GT(writer_->putPiece(bytes.data(), 20'000, 0, kSentBack), 0u);
    MessageChain back;
    ASSERT_TRUE(writer_->giveUp().recover(back, 1, 2));
    ASSERT_EQ(back.count(), 2u);
    EXPECT_EQ(back.pop().size(), 100u);
    EXPECT_EQ(back.pop().size(), 300u);
}

TEST_F(RingTest, WhatThereIsNoMemoryForComesBackLater) {
    ASSERT_TRUE(put(100, 1) && put(10'000, 2) && put(200, 3));
    SentMessages untaken = writer_->giveUp();
    MessageChain back;
    allocateUninitialized(100);  // goes to the pool, which has none of the second one's size
    starve(1);
    EXPECT_FALSE(untaken.recover(back, 1, 2));
    EXPECT_TRUE(feed());
    EXPECT_EQ(back.count(), 1u);
    EXPECT_TRUE(untaken.recover(back, 1, 2));
    ASSERT_EQ(back.count(), 3u);
    for (std::size_t const size : {100u, 10'000u, 200u})
        EXPECT_EQ(back.pop().size(), size);
}

TEST_F(RingTest, AMessageIsTheSendersUntilItIsKept) {
    ASSERT_TRUE(put(100, 1) && put(200, 2));
    ASSERT_EQ(next(), RingReader::Result::Message);
    reader_->keep();
    ASSERT_EQ(next(), RingReader::Result::Message);
    reader_->leave();
    reader_->finishBatch();
    MessageChain back;
    ASSERT_TRUE(writer_->giveUp().recover(back, 1, 2));
    ASSERT_EQ(back.count(), 1u);
    EXPECT_EQ(back.pop().size(), 200u);
}

TEST_F(RingTest, ASenderThatWantsSpaceIsRungOnceAsSoonAsHalfOfItIsFree) {
    while (put(1000, 1)) {
    }
    writer_->wantSpace();
    int taken = 0;
    do {
        ASSERT_EQ(next(), RingReader::Result::Message);
        ++taken;
    } while (!reader_->finishBatch());
    EXPECT_EQ(taken, 8);
    ASSERT_EQ(next(), RingReader::Result::Message);
    EXPECT_FALSE(reader_->finishBatch());
}

/** A ring whose reader passes messages on and releases them later. */
class DeferredRingTest : public RingTest {
protected:
    static constexpr std::uint32_t kFrom = 0xFFFFFF00;  // places come round soon

    void SetUp() override {
        reader_.emplace(receiving_.page(),
                        *reinterpret_cast<ControlPage const*>(sendersView_.data()),
                        areaOf(file_.get(), kRingOffset, kSmallestRing), nullptr, kFrom);
    }

    void act(char what) {
        switch (what) {
            case 's':
                ASSERT_TRUE(put(100, ++lastSent_));
                return sent_.push_back(lastSent_);
            case 'b':
                ASSERT_TRUE(
                    writer_->put(std::vector<unsigned char>(100, 0).data(), 100, kSentBack));
                return;
            case 'p':
                return putPiece();
            case 'n':
                return goOn();
            case 'r':
                return read();
            case 'x':
            case 'X':
                for (bool more = true; more; more = what == 'X' && places_.size() > 1) {
                    ASSERT_FALSE(places_.empty());
                    reader_->release(places_.front());
                    places_.erase(places_.begin());
                    sent_.erase(sent_.begin());
                }
        }
    }
    /** As much of a large message as fits. */
    void putPiece() {
        if (large_.empty()) {
            large_ = AddressedMessage::allocate(40'000);
            std::memset(large_.buf(), ++lastSent_, large_.size());
        }
        done_ += writer_->putPiece(large_.buf(), 40'000, done_);
        if (done_ < large_.size())
            return;
        writer_->keepUntilTaken(std::exchange(large_, {}));
        done_ = 0;
        sent_.push_back(lastSent_);
    }
    void goOn() {
        std::uint32_t const capacity = 4 * writer_->capacity();
        Descriptor const file = makeSealedFile(capacity);
        RingArea area = areaOf(file.get(), 0, capacity, Mapping::Access::ReadWrite);
        area.starts = FrameStarts(capacity);
        nextRings_.push_back(areaOf(file.get(), 0, capacity));
        writer_->goOnIn(std::move(area));
    }
    void read() {
        AddressedMessage message;
        switch (reader_->next(message)) {
            case RingReader::Result::Message:
                if (!reader_->isSentBack())
                    places_.push_back(MessageChain::endInRing(message));
                return reader_->keep();
            case RingReader::Result::NextRing:
                reader_->goOnIn(std::move(nextRings_.front()));
                return nextRings_.pop_front();
            default:
                return;
        }
    }
    /** The messages that come back, by what they are filled with. */
    std::vector<unsigned char> recovered() {
        MessageChain back;
        EXPECT_TRUE(writer_->giveUp().recover(back, 1, 2));
        std::vector<unsigned char> numbers;
        while (!back.empty()) {
            AddressedMessage const message = back.pop();
            numbers.push_back(message.buf()[0]);
            EXPECT_EQ(message.buf()[message.size() - 1], message.buf()[0]);
        }
        return numbers;
    }

    unsigned char lastSent_ = 0;
    std::vector<unsigned char> sent_;    // and not released
    std::vector<std::uint32_t> places_;  // of those that have been read, and not released
    std::deque<RingArea> nextRings_;
    AddressedMessage large_;  // that is being put in
    std::uint32_t done_ = 0;
};

struct DeferredCase {
    char const* what;
    char const* course;  // s: a small message; p: a piece of a large one, of three; b: one that is
                         // sent back; n: the next ring; r: read; x: release one; X: all read
};

void PrintTo(DeferredCase const& one, std::ostream* out) {
    *out << one.what;
}

class DeferredRingCases : public DeferredRingTest,
                          public testing::WithParamInterface<DeferredCase> {};

TEST_P(DeferredRingCases, AMessageIsTheSendersUntilItIsReleased) {
    for (char const* at = GetParam().course; *at != 0; ++at)
        ASSERT_NO_FATAL_FAILURE(act(*at)) << at;
    EXPECT_EQ(recovered(), sent_) << GetParam().what;
    EXPECT_FALSE(writer_->broken());
}

INSTANTIATE_TEST_SUITE_P(
    Ring, DeferredRingCases,
    testing::Values(DeferredCase{"not read", "sss"}, DeferredCase{"not released", "sssrrr"},
                    DeferredCase{"some released", "ssssrrrrxx"},
                    DeferredCase{"all released at once", "ssssrrrX"},
                    DeferredCase{"released between reads", "sssrxrxr"},
                    DeferredCase{"in pieces", "prprpr"}, DeferredCase{"that, released", "prprprx"},
                    DeferredCase{"in pieces, not read to the end", "prprp"},
                    DeferredCase{"in pieces, not put in to the end", "srxprpr"},
                    DeferredCase{"in pieces behind one that is kept", "srprpxprprsr"},
                    DeferredCase{"in pieces behind one that has been", "srprpxprprsrX"},
                    DeferredCase{"kept where the ring goes on", "srnrsrsrx"},
                    DeferredCase{"released where the ring goes on", "srxnrsrnrsrs"},
                    DeferredCase{"kept over many rings", "srnrsrnrsrnrsr"},
                    DeferredCase{"sent back in between", "sbsbsrrrrrx"},
                    DeferredCase{"sent back with nothing kept", "sbrxrsr"}));

TEST_F(DeferredRingTest, WhatIsNotKeptIsNotReleased) {
    for (char const what : {'s', 's', 's', 'r', 'r', 'x'})
        act(what);
    std::uint32_t const kept = places_.front();
    for (std::uint32_t const place : {kFrom, kept - 2 * frameBytes(100), kept + frameBytes(100),
                                      kept + 0x80000000u, MessageBlock::kNotInRing + 8})
        EXPECT_FALSE(reader_->release(place)) << place;
    EXPECT_EQ(recovered(), sent_);
}

TEST_F(DeferredRingTest, ASenderThatWantsSpaceIsRungWhenEnoughIsReleased) {
    while (put(1000, 1)) {
    }
    writer_->wantSpace();
    while (reader_->hasData())
        read();
    EXPECT_FALSE(reader_->finishBatch()) << "there is no room yet";
    std::size_t released = 0;
    while (!reader_->release(places_.at(released)))
        ++released;
    EXPECT_EQ(released, 7u);
    EXPECT_TRUE(writer_->hasRoomFor(8000));
    EXPECT_FALSE(reader_->release(places_.at(released + 1))) << "once";
}

TEST_F(DeferredRingTest, PositionsComeRound) {
    DeferredHead head(receiving_.page(), senderPage(), kSmallestRing);
    for (std::uint32_t const end : {0x7FFFFFF8u, 0xFFFFFFE0u})
        head.passed(end);
    auto const& shown = receiving_.page().head;
    head.handedOn(0xFFFFFFF0);
    head.handedOn(0x10);
    head.passed(0x20);
    EXPECT_EQ(shown, 0xFFFFFFE0u);
    head.release(0x18);
    EXPECT_EQ(shown, 0xFFFFFFE0u);
    head.release(0xFFFFFFF0);
    EXPECT_EQ(shown, 0xFFFFFFF0u);
    head.release(0x10);
    EXPECT_EQ(shown, 0x20u) << "with what is of no use by itself";
}

TEST(FrameStartsTest, AFrameLeavesNothingOfThoseThatLayThereBefore) {
    constexpr std::uint32_t kPlaces = kSmallestRing / 8;
    FrameStarts starts(kSmallestRing);
    std::vector<bool> expected(kPlaces);
    std::minstd_rand random(1);
    std::uint32_t position = 0u - 3 * kSmallestRing;
    for (int frame = 0; frame < 3000; ++frame) {
        std::uint32_t const most = frame % 3 == 0 ? kPlaces : 40;
        std::uint32_t const places = 1 + static_cast<std::uint32_t>(random()) % most;
        for (std::uint32_t i = 0; i < places; ++i)
            expected[(position / 8 + i) % kPlaces] = i == 0;
        starts.note(position, 8 * places);
        for (std::uint32_t place = 0; place < kPlaces; ++place)
            ASSERT_EQ(starts.at(8 * place), expected[place]) << "frame " << frame;
        position += 8 * places;
    }
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
    EXPECT_TRUE(takeDoorBell(makeDoorBell().get()));
    EXPECT_FALSE(takeDoorBell(file.get()));
}

}  // namespace
}  // namespace transporttest
