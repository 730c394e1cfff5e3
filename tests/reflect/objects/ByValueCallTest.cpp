// Operations that are called by name, with arguments and results in anys.
#include "BrokerTest.h"
#include "DeskObject.h"
#include "ReflectActor.h"
#include "Watcher.h"

namespace {

using Values = TipprmiSequence<TipprmiAny, 0u>;

template <class... T>
Values values(T const&... value) {
    Values all;
    TreflectParameters::fill(all, value...);
    return all;
}

/** What a console does: text to arguments, and results to text; "?" and a code for a failure. */
std::string called(TreflectOperation& operation, std::vector<std::string> const& texts) {
    std::vector<TreflectParameterType> const in = operation.meta()->argumentTypes();
    Values arguments;
    arguments.setLength(static_cast<unsigned int>(texts.size()));
    for (unsigned int i = 0; i < texts.size(); ++i)
        EXPECT_TRUE(in.at(i).parse(texts[i], arguments[i])) << texts[i];
    auto const results = operation.invoke(arguments);
    if (!results)
        return '?' + std::to_string(results.code());
    std::vector<TreflectParameterType> const out = operation.meta()->resultTypes();
    std::string text;
    for (unsigned int i = 0; i < results.value().getLength(); ++i) {
        TreflectParameterType const& type =
            i < out.size() && out[i].isValid() ? out[i] : TreflectParameterType("any");
        TipprmiAny result = results.value()[i];
        if (type.name() == "any")
            result.insert(results.value()[i]);
        text += (i > 0 ? " " : "") + type.print(result).valueOr("unreadable");
    }
    return text;
}

enum Where { kSameProcess, kOtherProcess };

class ByValueCallTest : public PermittedTest, public testing::WithParamInterface<Where> {
protected:
    ByValueCallTest() {
        if (GetParam() == kSameProcess) {
            here_ = std::make_unique<desk::Server>();
        } else {
            child_ = std::make_unique<ReflectActor>();
            child_->ask("desk", "made");
        }
        object = TreflectObject(oid("desk"));
    }
    TreflectOperation& operation(std::string const& name) const { return object.operation(name); }
    unsigned int joined() const {
        unsigned int times = 0;
        auto const results = operation("counted").invoke({});
        TipprmiAny(results.value()[0]).extract(times);
        return times;
    }

    std::unique_ptr<ReflectActor> child_;
    std::unique_ptr<desk::Server> here_;
    TreflectObject object;
};

INSTANTIATE_TEST_SUITE_P(ToAnObjectOf, ByValueCallTest,
                         testing::Values(kSameProcess, kOtherProcess), [](auto const& where) {
                             return where.param == kSameProcess ? "TheSameProcess"
                                                                : "AnotherProcess";
                         });

TEST_P(ByValueCallTest, TextBecomesArgumentsAndResultsBecomeText) {
    EXPECT_EQ(called(operation("join"), {"\"number \"", "0x11"}), "\"number 17\"");
    EXPECT_EQ(called(operation("refuse"), {"0"}), "") << "no results";
    Values inAndOut = values(std::string("number "), 17u);
    ASSERT_EQ(operation("join").call(inAndOut, inAndOut), 0);
    ASSERT_EQ(inAndOut.getLength(), 1u);
}

TEST_P(ByValueCallTest, ResultsAreSplitAsTheyAreDescribed) {
    std::string const unreadable = '?' + std::to_string(TipprmiFailure::kUnreadable);
    EXPECT_EQ(called(operation("two"), {}), "4278190081 2");
    EXPECT_EQ(called(operation("twoInOne"), {}), "{4278190081, 2}");
    EXPECT_EQ(called(operation("twoUndescribed"), {}), "0xFF00000100000002");
    EXPECT_EQ(called(operation("twoAsOne"), {}), unreadable) << "more than described";
    EXPECT_EQ(called(operation("twoAsThree"), {}), unreadable) << "less than described";
    EXPECT_EQ(called(operation("twoWithColour"), {}), "4278190081 0x00000002");
    EXPECT_EQ(called(operation("twoOfColour"), {}), "0xFF00000100000002") << "where does it end?";
    Values out = values(1u);
    EXPECT_EQ(operation("twoAsOne").call({}, out), TreflectOperation::error);
    EXPECT_EQ(out.getLength(), 1u) << "left as it was";
}

/** Reads on behind itself while it is written. */
struct Curious {
    TipprmiOID value;
};
TipprmiStream& operator<<(TipprmiStream& stream, Curious const& curious) {
    stream << curious.value;
    return stream.unmarshall(nullptr, 1000);
}

TEST_P(ByValueCallTest, AnIdentifierIsAnAttributesValue) {
    TreflectAttribute& owner = object.attribute("Owner");
    EXPECT_TRUE(owner.store(TipprmiOID("me", NSID_NODE)));
    EXPECT_EQ(owner.fetch<TipprmiOID>().value(), TipprmiOID("me", NSID_UNIT));
    TipprmiOID known("", NSID_NODE);
    EXPECT_EQ(owner.get(known), 0);
    EXPECT_EQ(known, TipprmiOID("me", NSID_NODE)) << "keeps its namespace";
    EXPECT_TRUE(owner.store(Curious{TipprmiOID("you", NSID_UNIT)}))
        << "a request in which a read has failed is complete";
    EXPECT_EQ(owner.fetch<TipprmiOID>().value(), TipprmiOID("you", NSID_UNIT));
}

TEST_P(ByValueCallTest, AFailureTellsItsCode) {
    EXPECT_EQ(called(operation("refuse"), {"42"}), "?42");
    Values out = values(1u);
    EXPECT_EQ(operation("refuse").call(values(42u), out), TreflectOperation::error);
    EXPECT_EQ(out.getLength(), 1u);
    EXPECT_EQ(operation("join").invoke(values("no number")).code(), TipprmiFailure::kMismatch);
    EXPECT_EQ(joined(), 0u);

    TreflectOperation& none = operation("noneOfThisName");
    EXPECT_FALSE(none.invoke(values(1u)));
    EXPECT_EQ(none.call(values(1u), out), TreflectOperation::error);
}

TEST_P(ByValueCallTest, AResponseWithAnExceptionOfAnotherKindIsAFailure) {
    TipprmiExceptionContainer container;
    container.setExceptionType(7);
    TreflectOperation& two = operation("two");
    object.getStub_()->setExceptionContainer(container);
    EXPECT_EQ(two.invoke({}).code(), TipprmiFailure::kUnreadable);
}

TEST_P(ByValueCallTest, ArgumentsThatNoMessageHoldsAreNotSent) {
    std::string const half(9u << 20, 'x');
    EXPECT_FALSE(operation("join").invoke(values(half, half)));
    EXPECT_EQ(joined(), 0u);
}

TEST_P(ByValueCallTest, ObserversAreToldAndMayForbidIt) {
    Watcher guard;
    guard.react = [&] { guard.answer = guard.values.at(1) <= 100; };
    ASSERT_TRUE(operation("join").preObserve(&guard));
    EXPECT_EQ(called(operation("join"), {"x", "100"}), "\"x100\"");
    EXPECT_EQ(called(operation("join"), {"x", "101"}),
              '?' + std::to_string(TipprmiFailure::kVetoed));
    EXPECT_EQ(joined(), 1u);
}

}  // namespace
