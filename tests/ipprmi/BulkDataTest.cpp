// How often large values are copied on their way from the caller's variable to the function that
// serves the call, and back.
#include <algorithm>

#include "AllocationCount.h"
#include "BrokerTest.h"
#include "reflect/TreflectInterface.h"

namespace {

constexpr std::size_t kLarge = 64 * 1024;

/** Tells whenever it is copied. */
struct Counted {
    Counted() = default;
    explicit Counted(std::string what) : text(std::move(what)) {}
    Counted(Counted const& other) : text(other.text) { ++copies; }
    Counted(Counted&&) = default;
    Counted& operator=(Counted const& other) {
        text = other.text;
        ++copies;
        return *this;
    }
    Counted& operator=(Counted&&) = default;

    std::string text;
    inline static int copies = 0;
};
TipprmiStream& operator<<(TipprmiStream& stream, Counted const& value) {
    return stream << value.text;
}
TipprmiStream& operator>>(TipprmiStream& stream, Counted& value) {
    return stream >> value.text;
}

struct Answer {
    std::string text;
    unsigned int number = 0;
    std::string second;
    REFLECTORB_STRUCT(Answer, text, number, second)
};

/** Notes where the stream is that it is written to. */
struct Place {
    unsigned char const** seen;
};
TipprmiStream& operator<<(TipprmiStream& stream, Place const& place) {
    *place.seen = stream.getDataPtr();
    return stream;
}

class StoreServer : public TreflectInterface<StoreServer> {
public:
    using TreflectInterface::TreflectInterface;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        request_ = &in;
        bool const served = TreflectInterface::dispatch(withResponse, cc, mc, in, out);
        request_ = nullptr;
        return served;
    }

    std::string echo(std::string_view text) {
        seesWhatHasArrived_ = liesInRequest(text.data(), text.size());
        return std::string(text);
    }
    unsigned int sum(std::string const& ahead, TipprmiByteView bytes) {
        seesWhatHasArrived_ = liesInRequest(bytes.data, bytes.size);
        unsigned int sum = static_cast<unsigned int>(ahead.size());
        for (std::uint8_t const byte : bytes)
            sum += byte;
        return sum;
    }
    TipprmiResult<Counted> take(Counted first, Counted const& second) {
        first.text += second.text;
        return first;
    }
    std::string const& kept() const { return kept_; }
    Answer answer(std::string_view text) { return {std::string(text), 7, kept_}; }

    static constexpr auto interface() {
        return describe("BulkDataStore", 0x17E57004, op<&StoreServer::echo>("echo", 1),
                        op<&StoreServer::sum>("sum", 2), op<&StoreServer::take>("take", 3),
                        op<&StoreServer::kept>("kept", 4), op<&StoreServer::answer>("answer", 5));
    }

    bool seesWhatHasArrived() const { return seesWhatHasArrived_; }

private:
    bool liesInRequest(void const* from, std::size_t size) const {
        if (!request_)
            return false;
        auto const* const first = static_cast<unsigned char const*>(from);
        unsigned char const* const data = request_->getDataPtr();
        return size > 0 && data <= first && first + size <= data + request_->getDataSize();
    }

    TipprmiStream* request_ = nullptr;  // while one is served
    bool seesWhatHasArrived_ = false;
    std::string const kept_ = std::string(kLarge, 'k');
};

/** Calls through the streams, as from another process, but without a copy through shared memory. */
class Store : public TreflectClient<StoreServer> {
public:
    using TreflectClient::TreflectClient;
    TipprmiObjectSkeleton* getServer() const override { return nullptr; }
};

class BulkDataTest : public PermittedTest {
protected:
    /** The allocations of one call, once the buffers of messages are there. */
    template <class Call>
    static unsigned long allocationsOf(Call const& call) {
        unsigned long fewest = ~0ul;
        for (int i = 0; i < 20; ++i) {
            unsigned long const before = allocationCount();
            call();
            fewest = std::min(fewest, allocationCount() - before);
        }
        return fewest;
    }

    StoreServer server_{oid("bulk.store"), nullptr, "store"};
    Store const store_{oid("bulk.store")};
    std::string const text_ = std::string(kLarge, 't');
};

TEST_F(BulkDataTest, AServerSeesTextsAndBytesWhereTheyHaveArrived) {
    EXPECT_EQ(store_.call<&StoreServer::echo>(text_).value(), text_);
    EXPECT_TRUE(server_.seesWhatHasArrived());
    EXPECT_EQ(store_.call<&StoreServer::echo>("").value(), "");
    std::vector<std::uint8_t> const bytes(kLarge, 2);
    EXPECT_EQ(store_.call<&StoreServer::sum>("abc", bytes).value(), 3 + 2 * kLarge);
    EXPECT_TRUE(server_.seesWhatHasArrived());
    TreflectClient<StoreServer> const direct(oid("bulk.store"));
    EXPECT_EQ(direct.call<&StoreServer::sum>("abc", bytes).value(), 3 + 2 * kLarge);
    EXPECT_FALSE(server_.seesWhatHasArrived()) << "but the caller's own, without a message";
    EXPECT_EQ(direct.call<&StoreServer::kept>().value().size(), kLarge);
}

TEST_F(BulkDataTest, WhatHasNotArrivedIsNotShown) {
    EXPECT_FALSE(tipprmiCall<std::string>(store_, 0x17E57004, 1));
    EXPECT_FALSE(tipprmiCall<std::string>(store_, 0x17E57004, 1, 70'000u));
    EXPECT_FALSE(server_.seesWhatHasArrived());
    TipprmiStream stream(100);
    stream << 5u << 'a';
    EXPECT_TRUE(stream.takeText().empty());
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
}

TEST_F(BulkDataTest, NoValueIsCopiedBetweenStreamAndFunctionOrStreamAndCaller) {
    Counted const first(text_);
    Counted const second("u");
    Counted::copies = 0;
    auto result = store_.call<&StoreServer::take>(first, second);
    Counted const mine = std::move(result).value();
    Counted const atOnce = store_.call<&StoreServer::take>(first, second).value();
    EXPECT_EQ(Counted::copies, 0);
    EXPECT_EQ(mine.text, text_ + "u");
    EXPECT_EQ(atOnce.text, mine.text);
    EXPECT_EQ(store_.call<&StoreServer::take>(first, second).valueOr(Counted()).text, mine.text);
    EXPECT_EQ(Counted::copies, 0);
    EXPECT_EQ(first.text.size(), kLarge) << "the caller keeps his own";
}

TEST_F(BulkDataTest, OnlyTheValuesThemselvesAreAllocated) {
    // What the function makes, and what the caller gets.
    EXPECT_EQ(allocationsOf([&] { store_.call<&StoreServer::echo>(text_); }), 2u);
    EXPECT_EQ(allocationsOf([&] { store_.call<&StoreServer::kept>(); }), 1u);
    EXPECT_EQ(allocationsOf([&] { store_.call<&StoreServer::answer>(text_); }), 4u);
}

TEST_F(BulkDataTest, WhatIsReservedIsWrittenWithoutAMove) {
    TipprmiStream stream(100);
    stream << std::string(40, 'a');
    int const limit = stream.getDataLimit();
    stream.reserve(3 * kLarge);
    EXPECT_EQ(stream.getDataLimit(), limit);
    unsigned char const* const data = stream.getDataPtr();
    tipprmi::writeAll(stream, text_.substr(8), text_.substr(8), text_.substr(8));
    EXPECT_EQ(stream.getDataPtr(), data);
    EXPECT_EQ(stream.getDataSize(), 44 + 3 * static_cast<int>(kLarge - 4));
    stream.reserve(100u << 20);
    EXPECT_EQ(stream.getDataPtr(), data) << "more than any message holds";
    TipprmiStream fresh(100);
    unsigned char const* before = nullptr;
    unsigned char const* after = nullptr;
    tipprmi::writeAll(fresh, Place{&before}, Answer{text_, 7, text_}, Place{&after});
    EXPECT_EQ(before, after) << "room is made before anything is written";
    EXPECT_EQ(fresh.getDataSize(), 2 * static_cast<int>(kLarge) + 12);
}

}  // namespace
