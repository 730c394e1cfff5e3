// Calls that are refused with an exception that has fields.
#include "BrokerTest.h"
#include "Watcher.h"
#include "WireText.h"

namespace {

constexpr unsigned int kClass = 0x52430077;
enum Method : unsigned int { kDim = 1, kDimByCode = 2, kBrightness = 3 };

struct TooBright {
    static constexpr unsigned int kCode = 0x107;

    unsigned int limit = 0;
    std::string why;
    REFLECTORB_STRUCT(TooBright, limit, why)
};
struct NotLit {
    static constexpr unsigned int kCode = 0x108;
};
TipprmiStream& operator<<(TipprmiStream& stream, NotLit const&) {
    return stream;
}
TipprmiStream& operator>>(TipprmiStream& stream, NotLit&) {
    return stream;
}

using Dimmed = TipprmiOutcome<unsigned int, TooBright, NotLit>;

class Dimmer : public TreflectInterface<Dimmer> {
public:
    Dimmer() : TreflectInterface(TipprmiOID("dimmer", NSID_UNIT), nullptr, "dimmer") {}

    Dimmed dim(unsigned int level) {
        if (level == 0)
            return NotLit{};
        if (level == 1)
            return TipprmiFailure(5);
        if (level > 100)
            return TooBright{100, "hot"};
        return level + 1;
    }
    /** As a server does that knows nothing of fields. */
    TipprmiResult<unsigned int> dimByCode(unsigned int) { return TipprmiFailure(TooBright::kCode); }
    TipprmiOutcome<void, NotLit> brightness() { return {}; }

    static constexpr auto interface() {
        return describe("Dimmer", kClass, op<&Dimmer::dim>("dim", kDim),
                        op<&Dimmer::dimByCode>("dimByCode", kDimByCode),
                        op<&Dimmer::brightness>("brightness", kBrightness));
    }
};

class OutcomeTest : public PermittedTest {
public:
    Dimmed byStreams(unsigned int level) {
        return tipprmiRaisingCall<Dimmed>(object, kClass, kDim, level);
    }
    Dimmed direct(unsigned int level) {
        return treflectCall(object, kClass, kDim, &Dimmer::dim, level);
    }

    Dimmer server;
    TreflectObject const object{server.getOID()};
};

TEST_F(OutcomeTest, ARefusalHasItsFieldsByStreamsAndDirectly) {
    for (auto const call : {&OutcomeTest::byStreams, &OutcomeTest::direct}) {
        EXPECT_EQ((this->*call)(7).value(), 8u);
        Dimmed const bright = (this->*call)(200);
        EXPECT_FALSE(bright);
        EXPECT_EQ(bright.code(), TooBright::kCode);
        ASSERT_TRUE(bright.raised<TooBright>());
        EXPECT_EQ(bright.raised<TooBright>()->limit, 100u);
        EXPECT_EQ(bright.raised<TooBright>()->why, "hot");
        EXPECT_FALSE(bright.raised<NotLit>());
        EXPECT_TRUE((this->*call)(0).raised<NotLit>());
        Dimmed const other = (this->*call)(1);
        EXPECT_EQ(other.code(), 5u);
        EXPECT_FALSE(other.raised<TooBright>() || other.raised<NotLit>());
    }
    EXPECT_TRUE(treflectCall(object, kClass, kBrightness, &Dimmer::brightness));
}

TEST_F(OutcomeTest, WhoKnowsNothingOfFieldsUnderstandsAndIsUnderstood) {
    auto const old = tipprmiCall<unsigned int>(object, kClass, kDim, 200u);
    EXPECT_EQ(old.code(), TooBright::kCode);
    Dimmed const fromOld = tipprmiRaisingCall<Dimmed>(object, kClass, kDimByCode, 200u);
    EXPECT_EQ(fromOld.code(), TooBright::kCode);
    EXPECT_FALSE(fromOld.raised<TooBright>()) << "its fields have not come";
}

TEST_F(OutcomeTest, FieldsStandBehindTheCodeInTheContainer) {
    TipprmiStream in(8), out(8);
    in << 200u;
    ASSERT_TRUE(server.dispatch(true, kClass, kDim, in, out));
    EXPECT_EQ(wire::hex(out), wire::bare("00000001 0000000F 00000107 00000064 00000003 686F74"));
}

TEST_F(OutcomeTest, AnObservedCallIsRefusedInTheSameWay) {
    Watcher before, after;
    object.operation("dim").preObserve(&before);
    object.operation("dim").postObserve(&after);
    EXPECT_TRUE(byStreams(200).raised<TooBright>());
    EXPECT_TRUE(direct(200).raised<TooBright>());
    EXPECT_EQ(before.told.size(), 2u);
    EXPECT_EQ(after.told.size(), 2u) << "a refusal is an end of the call as well";
    before.answer = false;
    EXPECT_EQ(direct(200).code(), TipprmiFailure::kVetoed);
    EXPECT_EQ(byStreams(200).code(), TipprmiFailure::kVetoed);
}

}  // namespace
