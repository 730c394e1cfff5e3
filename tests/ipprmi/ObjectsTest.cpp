#include "BrokerTest.h"
#include "WireText.h"

namespace {

constexpr unsigned int kClass = 0xC1A55;
enum Method : unsigned int { kRefuse = 2, kNothing = 3, kBreakOff = 4 };

TipprmiExceptionContainer containerOfType(unsigned int type) {
    TipprmiExceptionContainer container;
    container.setExceptionType(type);
    return container;
}

class Server : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        auto const by = [&](auto method) { return serve(cc, mc, in, out, method); };
        return mc == kRefuse     ? by(&Server::refuse)
               : mc == kNothing  ? by(&Server::nothing)
               : mc == kBreakOff ? breakOff(out)
                                 : TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
    TipprmiResult<unsigned int> refuse(unsigned int code) {
        ++calls;
        if (code != 0)
            return TipprmiFailure(code);
        return 7u;
    }
    void nothing() { ++calls; }
    static bool breakOff(TipprmiStream& out) {
        out << TipprmiGeneralException::getExceptionClassType();
        return true;
    }

    int calls = 0;
};

class Base : public TipprmiObjectBase {
public:
    using TipprmiObjectBase::TipprmiObjectBase;
    TreflectOrbId orbId() const override { return TreflectOrbId(0x1A); }
};

class ObjectsTest : public PermittedTest {};

TEST_F(ObjectsTest, AnObjectWithoutIdentifierMakesOneUp) {
    Base const unnamed(oid(""), 3);
    EXPECT_FALSE(unnamed.hasOID());
    EXPECT_STREQ(unnamed.getOID().getIdString(), "rmi_1A_3");
    EXPECT_EQ(unnamed.getOID().getNamespaceId(), NSID_UNIT);
    Base const onNode(TipprmiOID("base.named", NSID_NODE), 3);
    EXPECT_STREQ(onNode.getOID().getIdString(), "base.named");
    EXPECT_EQ(onNode.getNamespaceId(), NSID_NODE);
}

TEST_F(ObjectsTest, TheBaseServesNothing) {
    Base base(oid("base"), 3);
    TipprmiStream in(8), out(8);
    EXPECT_FALSE(base.dispatch(true, kClass, 1, in, out));
    base.setExceptionContainer(containerOfType(1));
    EXPECT_EQ(log_.count(2, "setExceptionContainer should never be called"), 1u);
    EXPECT_EQ(base.getExceptionContainer().getExceptionType(), 0u);
    EXPECT_EQ(log_.count(2, "getExceptionContainer should never be called"), 1u);
    EXPECT_EQ(log_.find("getExceptionContainer")->source, "IPPRMI_objectBase");
}

TEST_F(ObjectsTest, AReconnectedSkeletonMovesAndGetsAFreshHandle) {
    Server server(oid("skeleton.moved"));
    TipprmiObjectClient const before(*server.getClient());
    EXPECT_EQ(server.getClient(), server.getClient());
    server.connect(TreflectORB::getInstance(NSID_NODE), server.getOID());
    EXPECT_EQ(TreflectORB::getInstance(NSID_UNIT)->locateObject(server.getOID()).getServer(),
              nullptr);
    EXPECT_EQ(server.getClient()->getStub_()->orbId(),
              TreflectORB::getInstance(NSID_NODE)->orbId());
    EXPECT_EQ(before.getServer(), &server) << "old handles still lead to the object";
}

TEST_F(ObjectsTest, AHandleTravelsAsTheLocationOfItsObject) {
    TreflectORB::TreflectObjectLocation const location(0x0A0B0C0D, TreflectOrbId(0x01020304),
                                                       nullptr, oid("ab"));
    TreflectObjectHandler& handler = *TreflectObjectHandler::getInstance();
    TipprmiObjectClient sent;
    handler.releaseStub(sent.getStub_());
    sent.setStub_(handler.adoptStub(location));
    TipprmiStream stream(100);
    stream << sent;
    EXPECT_EQ(wire::hex(stream), wire::bare("00000002 6162 00000001 0A0B0C0D 01020304"));

    TipprmiObjectClient read;
    stream >> read;
    EXPECT_EQ(read.getStub_(), sent.getStub_());
    EXPECT_EQ(read.getStub_()->refCount(), 2);
    EXPECT_EQ(read.identifier(), oid("ab"));
    stream >> read;
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    EXPECT_TRUE(read == TipprmiObjectClient()) << "nothing could be read";
    EXPECT_EQ(read.identifier().getIdString(), nullptr);
    EXPECT_TRUE(read == TipprmiObjectClient(static_cast<TipprmiObjectSkeleton*>(nullptr)));
    EXPECT_EQ(sent.getStub_()->refCount(), 1);
}

TEST_F(ObjectsTest, AnUnnamedObjectTravelsWithAnEmptyNameAndIsFoundAgain) {
    Server server(oid(""));
    TipprmiObjectClient const sent(*server.getClient());
    TipprmiStream stream(100);
    stream << sent;
    EXPECT_EQ(stream.getDataSize(), 16);
    TipprmiObjectClient read;
    stream >> read;
    EXPECT_EQ(read.getServer(), &server);
    EXPECT_EQ(read.identifier(), server.getOID());
    TipprmiObjectClient const byMadeUpName(read.identifier());
    EXPECT_EQ(byMadeUpName.getServer(), &server);
}

// ---- ClientCallHelper --------------------------------------------------------------------------

class Hook : public ClientCallHookBaseV {
public:
    void callServer(TreflectServerObject&) const override {}
    void fillParams(TipprmiSequence<TipprmiAny, 0u>&) const override {}
    char const* operationName() const override { return "refuse"; }
};

struct In : InParamHook {
    explicit In(unsigned int number) : value(number) {}
    void marshall(TipprmiStream& request) const override { request << value; }
    unsigned int const value;
};

struct Out : OutParamHook {
    void unmarshall(TipprmiStream& response) const override { response >> value; }
    mutable unsigned int value = 99;
};

TEST_F(ObjectsTest, ACallYieldsItsResultOrZerosItsExceptionAndALogLine) {
    Server server(oid("helper"));
    Hook const hook;
    Out const out;
    auto const refuse = [&](unsigned int code) {
        ClientCallHelper(hook, In(code), out, *server.getClient()->getStub_(), nullptr, kClass,
                         kRefuse, true);
    };
    refuse(42);
    EXPECT_EQ(out.value, 0u);
    TipprmiExceptionContainer exception = hook.exception();
    TipprmiGeneralException general(0);
    exception.getExceptionData(general);
    EXPECT_EQ(exception.getExceptionType(), 1u);
    EXPECT_EQ(general.code(), 42u);
    EXPECT_EQ(log_.count(4, "Unmarshall error on cc=0xC1A55, mc=2"), 1u);
    EXPECT_EQ(log_.find("Unmarshall")->source, "CallHelper");

    refuse(0);
    EXPECT_EQ(out.value, 7u) << "evaluation leaves the read position where it was";
    EXPECT_EQ(hook.exception().getExceptionType(), 0u) << "each call tells of itself alone";
}

TEST_F(ObjectsTest, ACallWithoutTheRunPermissionIsReported) {
    Server server(oid("helper.permission"));
    TipprmiObjectClient const client(&server);
    TreflectReleaseHandlerState const outside;
    EXPECT_TRUE(tipprmiCall<void>(client, kClass, kNothing));
    EXPECT_TRUE(log_.contains("doing RMI, but has no RunPermission"));
    EXPECT_EQ(server.calls, 1) << "and performed";
}

// ---- Calls in one line -------------------------------------------------------------------------

TEST_F(ObjectsTest, ArgumentsAndResultsThatCannotBeReadAreFailures) {
    Server server(oid("call.unreadable"));
    TipprmiObjectClient const client(&server);
    EXPECT_EQ(tipprmiCall<unsigned int>(client, kClass, kRefuse).code(),
              TipprmiFailure::kNotServed);
    EXPECT_EQ(server.calls, 0) << "a function is not called with half its arguments";
    EXPECT_TRUE(log_.contains("Unmarshall error on cc=0xC1A55, mc=2"));
    EXPECT_EQ(tipprmiCall<unsigned int>(client, kClass, kNothing).code(),
              TipprmiFailure::kUnreadable);
    EXPECT_EQ(tipprmiCall<void>(client, kClass, 99).code(), TipprmiFailure::kNotServed);

    log_.clear();
    EXPECT_EQ(tipprmiCall<void>(client, kClass, kBreakOff).code(), TipprmiFailure::kUnreadable);
    EXPECT_EQ(log_.count(3, "out of bounds"), 1u) << "the same bytes are reported once";
}

}  // namespace
