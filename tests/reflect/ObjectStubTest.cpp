#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "Permitted.h"
#include "reflect.h"

namespace {

using testsupport::LogCapture;
using Location = TreflectORB::TreflectObjectLocation;

TipprmiOID const noOid("", NSID_UNIT);
constexpr unsigned int kRemoteOrb = 0x01020304;

Location remote(unsigned int ioid, TipprmiOID const& name = noOid, unsigned int orb = kRemoteOrb) {
    return Location(ioid, TreflectOrbId(orb), nullptr, name);
}

__attribute__((format(printf, 1, 2))) std::string text(char const* format, ...) {
    char buffer[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

/** Method 1 succeeds, all others are unknown. */
class Server : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (mc == 1)
            return serve(cc, mc, in, out, &Server::twice);
        return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
    unsigned int twice(unsigned int value) const { return 2 * value; }
};

class ObjectStubTest : public ::testing::Test {
protected:
    TreflectObjectStub* adopt(Location const& location) { return handler.adoptStub(location); }
    void release(std::initializer_list<TreflectObjectStub*> stubs) {
        for (TreflectObjectStub* const stub : stubs)
            handler.releaseStub(stub);
    }
    /** The failure that stands at the head of `response`. */
    static unsigned int failureIn(TipprmiStream const& response) {
        TipprmiStream fromStart(response);
        fromStart.rewind();
        TipprmiExceptionContainer container;
        fromStart >> container;
        EXPECT_EQ(container.getExceptionType(), TipprmiGeneralException::getExceptionClassType());
        TipprmiGeneralException exception(0xDEAD);
        container.getExceptionData(exception);
        return exception.code();
    }

    TreflectHandlerState const inside{true};
    TreflectObjectHandler& handler = *TreflectObjectHandler::getInstance();
};

TEST_F(ObjectStubTest, LocationsOrderByNamespaceThenInternalIdThenIdentifierThenBroker) {
    Location const node(1, TreflectOrbId(1), nullptr, TipprmiOID("a", NSID_NODE));
    EXPECT_TRUE(remote(9, oid("z")) < node);
    EXPECT_FALSE(node < remote(9, oid("z")));
    EXPECT_TRUE(remote(0x7FFFFFFF) < remote(0x80000000)) << "internal ids are unsigned";
    EXPECT_TRUE(remote(5, oid("a")) < remote(5, oid("b")));
    EXPECT_FALSE(remote(5, oid("b")) < remote(5, oid("a")));
    EXPECT_TRUE(remote(5, oid("z"), 1) < remote(5, oid("a"), 2)) << "by broker when they differ";
}

TEST_F(ObjectStubTest, OneLocationWithoutIdentifierIsEquivalentToAnyOfItsPlace) {
    EXPECT_FALSE(remote(5) < remote(5, oid("a")));
    EXPECT_FALSE(remote(5, oid("a")) < remote(5));
    TreflectObjectStub* const stub = adopt(remote(5, oid("a")));
    EXPECT_EQ(adopt(remote(5)), stub);
    EXPECT_NE(adopt(remote(5, oid("b"))), stub);
    release({stub, stub, handler.adoptStub(remote(5, oid("b")))});
}

TEST_F(ObjectStubTest, TheEmptyIdentifierGivesTheInvalidStub) {
    TreflectObjectStub* const stub = handler.adoptStub(noOid);
    EXPECT_STREQ(stub->getOID().getIdString(), "InvalidStub");
    EXPECT_EQ(stub->getNamespaceId(), NSID_UNIT);
    EXPECT_FALSE(stub->isConnected());
    EXPECT_EQ(adopt(remote(0)), stub) << "nor does a location that is nowhere lead anywhere";
    EXPECT_EQ(adopt(remote(0, oid("InvalidStub"), 0)), stub) << "which is how it travels";
    int const count = stub->refCount();
    release({stub, stub, stub});
    EXPECT_EQ(stub->refCount(), count - 3);
    EXPECT_GE(stub->refCount(), 2) << "two references are the handler's own";
}

TEST_F(ObjectStubTest, HandlesOfOneLocationShareAStubUntilItsBrokerGoes) {
    TreflectObjectStub* const first = adopt(remote(5, oid("shared")));
    EXPECT_EQ(adopt(remote(5, oid("shared"))), first);
    EXPECT_EQ(first->refCount(), 2);
    TreflectObjectStub* const other = adopt(remote(5, oid("shared"), 0x0A0B0C0D));

    handler.invalidateStubs(TreflectOrbId(kRemoteOrb));
    EXPECT_FALSE(first->isValid());
    EXPECT_TRUE(other->isValid()) << "of another broker";
    TreflectObjectStub* const afresh = adopt(remote(5, oid("shared")));
    EXPECT_NE(afresh, first);
    EXPECT_TRUE(afresh->isConnected());
    EXPECT_FALSE(first->isConnected());

    release({first, first});
    EXPECT_EQ(adopt(remote(5, oid("shared"))), afresh) << "its neighbour was taken out, not it";
    release({afresh, afresh, other});
}

TEST_F(ObjectStubTest, ReleasedStubsLeaveTheTable) {
    std::vector<TreflectObjectStub*> stubs;
    for (unsigned int i = 1; i <= 100; ++i) {
        stubs.push_back(adopt(remote(7, oid("x" + std::to_string(i)))));
        stubs.push_back(adopt(remote(i)));
    }
    for (TreflectObjectStub* const stub : stubs)
        handler.releaseStub(stub);
    TreflectObjectStub* const afresh = adopt(remote(7, oid("x50")));
    EXPECT_EQ(afresh->refCount(), 1);
    handler.releaseStub(afresh);
}

TEST_F(ObjectStubTest, AStubThatConnectsLateIsFoundAtItsNewPlace) {
    TreflectObjectStub* const late = handler.adoptStub(oid("stub.late"));
    EXPECT_FALSE(late->isConnected());
    EXPECT_EQ(handler.adoptStub(oid("stub.late")), late) << "absent names share a stub as well";
    {
        Server server(oid("stub.late"));
        EXPECT_EQ(handler.adoptStub(late), late);
        EXPECT_EQ(late->getServer(), &server) << "a copied handle looks for its object";
        EXPECT_EQ(handler.adoptStub(oid("stub.late")), late);
        EXPECT_EQ(server.getClient()->getStub_(), late);
    }
    EXPECT_FALSE(late->isValid());
    TreflectObjectStub* const absent = handler.adoptStub(oid("stub.late"));
    EXPECT_NE(absent, late) << "nothing is left at the old place";
    release({late, late, late, late, absent});
}

TEST_F(ObjectStubTest, AssignmentRefilesAStub) {
    TreflectObjectStub* const stub = adopt(remote(5, oid("assigned")));
    TreflectObjectStub const elsewhere(remote(6, oid("elsewhere")));
    *stub = elsewhere;
    EXPECT_EQ(stub->refCount(), 1);
    EXPECT_EQ(adopt(remote(6, oid("elsewhere"))), stub);
    TreflectObjectStub* const old = adopt(remote(5, oid("assigned")));
    EXPECT_NE(old, stub);
    release({stub, stub, old});
}

/** Lets go of the handle through which it is called, and then fails. */
class LettingGo : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;
    bool dispatch(bool, unsigned int, unsigned int, TipprmiStream&, TipprmiStream&) override {
        *handle = TipprmiObjectClient();
        return false;
    }
    TipprmiObjectClient* handle = nullptr;
};

TEST_F(ObjectStubTest, AnObjectMayLetGoOfTheHandleThatCallsIt) {
    LettingGo server(oid("stub.letting.go"));
    TipprmiObjectClient handle(&server);
    server.handle = &handle;
    TipprmiStream in(8), out(8);
    LogCapture const log;
    EXPECT_FALSE(handle.dispatch(true, 0xAB, 7, in, out));
    char orb[20];
    std::snprintf(orb, sizeof orb, "orbId=%X)", server.orbId().value());
    EXPECT_EQ(log.count(3, std::string("cc=0xAB,mc=7,") + orb + " to object failed"), 1u);
    EXPECT_EQ(handle.getServer(), nullptr);
}

TEST_F(ObjectStubTest, TheEndOfAnObjectMakesEveryStubOfItInvalid) {
    auto server = std::make_unique<Server>(oid("stub.short"));
    auto other = std::make_unique<Server>(oid("stub.long"));
    TipprmiObjectClient const byName(oid("stub.short"));
    TipprmiObjectClient moved(oid("stub.absent"));
    moved.getStub_()->connect(server.get());
    TipprmiObjectClient const survivor(other.get());
    EXPECT_EQ(moved.getServer(), server.get());

    server.reset();
    EXPECT_FALSE(byName.isConnected());
    EXPECT_EQ(byName.getServer(), nullptr);
    EXPECT_FALSE(moved.isConnected());
    EXPECT_EQ(survivor.getServer(), other.get());
    TipprmiStream in(8), out(8);
    EXPECT_FALSE(byName.dispatch(true, 1, 1, in, out));
    EXPECT_EQ(failureIn(out), 0u);
}

TEST_F(ObjectStubTest, AnInvalidStubStaysSoButForAnotherSkeletonOrAssignment) {
    Server server(oid("stub.again"));
    TreflectObjectStub stub(remote(5, oid("stub.again")));
    stub.setInvalid();
    stub.connect(oid("stub.again"));
    EXPECT_FALSE(stub.isValid());
    stub.connect(&server);
    EXPECT_TRUE(stub.isConnected());
    stub.connect(static_cast<TipprmiObjectSkeleton*>(nullptr));
    EXPECT_FALSE(stub.isConnected());
    EXPECT_FALSE(stub.hasOID());
    EXPECT_EQ(stub.orbId(), server.orbId());
    stub.setInvalid();
    stub = TreflectObjectStub(remote(6));
    EXPECT_TRUE(stub.isConnected());
}

TEST_F(ObjectStubTest, StubsAreEqualByIdentifierElseByPlaceAndServer) {
    TreflectObjectStub const a(remote(5, oid("a")));
    EXPECT_TRUE(a == TreflectObjectStub(remote(6, oid("a"), 1)));
    EXPECT_FALSE(a == TreflectObjectStub(remote(5, oid("b"))));
    EXPECT_TRUE(a == TreflectObjectStub(remote(5)));
    EXPECT_FALSE(a == TreflectObjectStub(remote(6)));
    EXPECT_FALSE(a == TreflectObjectStub(remote(5, noOid, 1)));
    TreflectObjectStub invalid(remote(5));
    invalid.setInvalid();
    EXPECT_FALSE(a == invalid);
}

TEST_F(ObjectStubTest, ALateConnectToALocalObjectWritesNoHeaderEither) {
    TreflectObjectStub const stub(Location(oid("stub.late.local")));
    Server server(oid("stub.late.local"));
    TipprmiStream request(100);
    LogCapture const log;
    EXPECT_EQ(stub.prepareRequestStream(true, 0xAB, 7, request).getDataSize(), 0);
    EXPECT_EQ(stub.getServer(), &server);
    EXPECT_EQ(log.count(4, text("prepareRequestStream_(this=0x%p,cc=0xAB,mc=7,orbId=%X) to non "
                                "connected stub object",
                                static_cast<void const*>(&stub), server.orbId().value())),
              1u);
}

TEST_F(ObjectStubTest, CallsThatReachNobodyAreLoggedAndAnswered) {
    LogCapture const log;
    TipprmiStream in(100), out(100);
    TreflectObjectStub invalid(remote(5, oid("gone")));
    invalid.setInvalid();
    in << 1u;
    EXPECT_EQ(invalid.prepareRequestStream(true, 0xAB, 7, in).getDataSize(), 4) << "untouched";
    EXPECT_EQ(invalid.dispatch(true, 0xAB, 7, in, out), 0);
    EXPECT_EQ(failureIn(out), 0u);
    void const* const at = &invalid;
    EXPECT_EQ(log.count(4, text("prepareRequestStream_(this=0x%p,cc=0xAB,mc=7,orbId=1020304) to "
                                "stub object set to invalid",
                                at)),
              1u);
    EXPECT_EQ(log.count(4, text("dispatch(this=0x%p,cc=0xAB,mc=7,orbId=1020304) request to stub "
                                "object set to invalid",
                                at)),
              1u);

    TreflectObjectStub const nowhere;
    EXPECT_EQ(nowhere.dispatch(true, 0xAB, 7, in, out), 0);
    EXPECT_EQ(failureIn(out), 0u);
    EXPECT_EQ(log.count(3, text("dispatch(this=0x%p,cc=0xAB,mc=7,orbId=0) request to invalid stub "
                                "object",
                                static_cast<void const*>(&nowhere))),
              1u);

    TreflectObjectStub const dead(remote(5));
    dead.prepareRequestStream(true, 0xAB, 7, in);
    EXPECT_NE(dead.dispatch(true, 0xAB, 7, in, out), 1);
    EXPECT_EQ(failureIn(out), 0u);
    EXPECT_EQ(log.count(3, "Message forwarding failed"), 1u);

    Server server(oid("stub.refusing"));
    TreflectObjectStub const local(&server);
    out.clear();
    EXPECT_EQ(local.dispatch(true, 0xAB, 7, in, out), 0);
    EXPECT_TRUE(out.empty()) << "a local object answers for itself";
    EXPECT_EQ(log.count(3, text("dispatch(this=0x%p,cc=0xAB,mc=7,orbId=%X) to object failed",
                                static_cast<void const*>(&local), server.orbId().value())),
              1u);
    EXPECT_EQ(log.find("to object failed")->source, "REFLECT_objectStub");
}

TEST_F(ObjectStubTest, StubsOnNothingSayWhereTheyWereMade) {
    LogCapture const log;
    TreflectObjectStub const fromLocation(remote(0));
    EXPECT_EQ(
        log.count(3, text("TreflectObjectStub(ol) this=0x%p,object=%p,oid=NULL,ioid=0,"
                          "orbId=0x1020304",
                          static_cast<void const*>(&fromLocation), static_cast<void*>(nullptr))),
        1u);
    TreflectObjectStub const copy(fromLocation);
    EXPECT_EQ(log.count(3, text("TreflectObjectStub(other) this=0x%p,object=%p,ioid=0,"
                                "orbId=0x1020304",
                                static_cast<void const*>(&copy), static_cast<void*>(nullptr))),
              1u);
    TreflectObjectStub assigned;
    assigned = fromLocation;
    EXPECT_EQ(log.count(3, text("operator=() object=%p,ioid=0,orbId=0x1020304",
                                static_cast<void*>(nullptr))),
              1u);
    Server server(oid("stub.zero"));
    unsigned int const ioid = server.getInternalOID();
    server.setInternalOID(0);
    TreflectObjectStub const onObject(&server);
    server.setInternalOID(ioid);
    EXPECT_EQ(log.count(3, text("TreflectObjectStub(object) this=0x%p,object=%p,ioid=0,orbId=0x%X",
                                static_cast<void const*>(&onObject), static_cast<void*>(&server),
                                server.orbId().value())),
              1u);
    TreflectObjectStub const absent(remote(0, oid("absent")));
    EXPECT_EQ(log.count("TreflectObjectStub(ol)"), 1u) << "a name is somewhere to look for";
}

TEST_F(ObjectStubTest, AResponseWithAnExceptionCannotBeReadFurther) {
    TipprmiStream response(100);
    writeGeneralException(response, 17);
    response << 5u;
    TreflectObjectStub const stub(remote(5));
    unsigned int value = 9;
    stub.prepareResponseStream(true, response) >> value;
    EXPECT_EQ(value, 0u);
    EXPECT_TRUE(response.hasUnmarshallingFailed());

    TipprmiStream oneWay(100);
    oneWay << 5u;
    stub.prepareResponseStream(false, oneWay) >> value;
    EXPECT_EQ(value, 5u) << "nothing is consumed when no response is awaited";
}

TEST_F(ObjectStubTest, AnInvalidStubNoLongerReachesTheExceptionContainerOfItsObject) {
    Server server(oid("stub.container"));
    TreflectObjectStub stub(&server);
    TipprmiExceptionContainer container;
    container.setExceptionType(3);
    stub.setExceptionContainer(container);
    EXPECT_EQ(stub.getExceptionContainer().getExceptionType(), 3u);
    stub.setInvalid();
    container.setExceptionType(4);
    stub.setExceptionContainer(container);
    EXPECT_EQ(server.getExceptionContainer().getExceptionType(), 3u);
    TipprmiExceptionContainer answer = stub.getExceptionContainer();
    TipprmiGeneralException exception(7);
    answer.getExceptionData(exception);
    EXPECT_EQ(answer.getExceptionType(), 1u);
    EXPECT_EQ(exception.code(), 0u);
}

}  // namespace
