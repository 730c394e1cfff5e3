#include <chrono>

#include "BrokerTest.h"

namespace {

using Location = TreflectORB::TreflectObjectLocation;

TipprmiOID const noOid("", NSID_UNIT);
constexpr unsigned int kRemoteOrb = 0x01020304;

Location remote(unsigned int ioid, TipprmiOID const& name = noOid, unsigned int orb = kRemoteOrb) {
    return Location(ioid, TreflectOrbId(orb), nullptr, name);
}

/** Of the part that the log lines name. */
void const* address(TreflectObjectStub const& stub) {
    return &stub;
}
void const* address(TipprmiObjectSkeleton const& server) {
    return &server;
}

/** Serves nothing. */
class Server : public TipprmiObjectSkeleton {
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;
};

class ObjectStubTest : public PermittedTest {
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

    TreflectObjectHandler& handler = *TreflectObjectHandler::getInstance();
};

TEST_F(ObjectStubTest, LocationsOrderByNamespaceThenInternalIdThenIdentifierThenBroker) {
    Location const node(1, TreflectOrbId(1), nullptr, TipprmiOID("a", NSID_NODE));
    std::pair<Location, Location> const ordered[]{
        {remote(9, oid("z")), node},
        {remote(0x7FFFFFFF), remote(0x80000000)},
        {remote(5, oid("a")), remote(5, oid("b"))},
        {remote(5, oid("z"), 1), remote(5, oid("a"), 2)}};  // by broker when they differ
    for (auto const& [lower, higher] : ordered) {
        EXPECT_TRUE(lower < higher);
        EXPECT_FALSE(higher < lower);
    }
}

TEST_F(ObjectStubTest, StubsOfOnePlaceAreToldApartAndLeaveTheTable) {
    std::vector<TreflectObjectStub*> stubs;
    for (int round = 0; round < 2; ++round)
        for (int i = 0; i < 100; ++i)
            stubs.push_back(adopt(remote(7, oid("x" + std::to_string(i)))));
    for (std::size_t i = 0; i < 100; ++i)
        EXPECT_EQ(stubs[i], stubs[100 + i]);
    for (TreflectObjectStub* const stub : stubs)
        handler.releaseStub(stub);
    TreflectObjectStub* const afresh = adopt(remote(7, oid("x50")));
    EXPECT_EQ(afresh->refCount(), 1);
    handler.releaseStub(afresh);
}

// Other processes choose where the objects are whose handles they send.
TEST_F(ObjectStubTest, NoChoiceOfPlacesMakesTheTableSlow) {
    auto const seconds = [this](auto const& place) {
        auto const begin = std::chrono::steady_clock::now();
        std::vector<TreflectObjectStub*> stubs;
        for (unsigned int i = 0; i < 20'000; ++i)
            stubs.push_back(adopt(place(i)));
        for (; !stubs.empty(); stubs.pop_back())
            handler.releaseStub(stubs.back());
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
    double const usual = seconds([](unsigned int i) { return remote(1 + i); });
    EXPECT_LT(seconds([](unsigned int i) { return remote(1 + i, noOid, kRemoteOrb - 31 * i); }),
              50 * usual);
    EXPECT_LT(seconds([](unsigned int i) { return remote(7, oid("x" + std::to_string(i))); }),
              100 * usual);
}

TEST_F(ObjectStubTest, OfEquivalentStubsTheFirstEnteredIsFound) {
    for (TipprmiOID const& name : {noOid, oid("twin")}) {
        TreflectObjectStub first(remote(7, name));
        TreflectObjectStub second(remote(7, name));
        handlerthreads::trustPermission();
        TreflectObjectStubContainer table;
        table.insert(&first);
        table.insert(&second);
        EXPECT_EQ(table.find(remote(7, name)), &first);
        table.erase(&first);
        table.insert(&first);
        EXPECT_EQ(table.find(remote(7, name)), &second);
        second.setInvalid();
        EXPECT_EQ(table.find(remote(7, name)), &first);
    }
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
}

TEST_F(ObjectStubTest, HandlesOfOneLocationShareAStubUntilItsBrokerGoes) {
    TreflectObjectStub* const first = adopt(remote(5, oid("shared")));
    EXPECT_EQ(adopt(remote(5, oid("shared"))), first);
    EXPECT_EQ(adopt(remote(5)), first) << "a name that is not told may be any";
    EXPECT_EQ(first->refCount(), 3);
    TreflectObjectStub* const other = adopt(remote(5, oid("shared"), 0x0A0B0C0D));

    handler.invalidateStubs(TreflectOrbId(kRemoteOrb));
    EXPECT_FALSE(first->isValid());
    EXPECT_TRUE(other->isValid()) << "of another broker";
    TreflectObjectStub* const afresh = adopt(remote(5, oid("shared")));
    EXPECT_NE(afresh, first);
    EXPECT_TRUE(afresh->isConnected());
    EXPECT_FALSE(first->isConnected());

    release({first, first, first});
    EXPECT_EQ(adopt(remote(5, oid("shared"))), afresh) << "its neighbour was taken out, not it";
    release({afresh, afresh, other});
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

TEST_F(ObjectStubTest, AnObjectMayLetGoOfTheHandleThatCallsIt) {
    TipprmiObjectClient handle;
    Acting server("stub.letting.go", [&](auto&&...) {
        handle = TipprmiObjectClient();
        return false;
    });
    handle = TipprmiObjectClient(&server);
    TipprmiStream in(8), out(8);
    EXPECT_FALSE(handle.dispatch(true, 0xAB, 7, in, out));
    expectLine(3, "cc=0xAB,mc=7,orbId=%X) to object failed", server.orbId().value());
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

TEST_F(ObjectStubTest, ALateConnectToALocalObjectWritesNoHeaderEither) {
    TreflectObjectStub const stub(Location(oid("stub.late.local")));
    Server server(oid("stub.late.local"));
    TipprmiStream request(100);
    EXPECT_EQ(stub.prepareRequestStream(true, 0xAB, 7, request).getDataSize(), 0);
    EXPECT_EQ(stub.getServer(), &server);
    expectLine(
        4, "prepareRequestStream_(this=0x%p,cc=0xAB,mc=7,orbId=%X) to non connected stub object",
        address(stub), server.orbId().value());
}

TEST_F(ObjectStubTest, CallsThatReachNobodyAreLoggedAndAnswered) {
    auto const expectFailure = [](TreflectObjectStub const& stub) {
        TipprmiStream in(100), out(100);
        EXPECT_NE(stub.dispatch(true, 0xAB, 7, in, out), 1);
        EXPECT_EQ(failureIn(out), 0u);
    };
    TipprmiStream in(100);
    in << 1u;
    TreflectObjectStub invalid(remote(5, oid("gone")));
    invalid.setInvalid();
    EXPECT_EQ(invalid.prepareRequestStream(true, 0xAB, 7, in).getDataSize(), 4) << "untouched";
    expectFailure(invalid);
    for (char const* const operation : {"prepareRequestStream_", "dispatch"})
        expectLine(4, "%s(this=0x%p,cc=0xAB,mc=7,orbId=1020304) %sto stub object set to invalid",
                   operation, address(invalid), *operation == 'd' ? "request " : "");
    TreflectObjectStub const nowhere;
    expectFailure(nowhere);
    expectLine(3, "dispatch(this=0x%p,cc=0xAB,mc=7,orbId=0) request to invalid stub object",
               address(nowhere));
    expectFailure(TreflectObjectStub(remote(5)));
    expectLine(3, "Message forwarding failed");

    Server server(oid("stub.refusing"));
    TreflectObjectStub const local(&server);
    TipprmiStream out(100);
    EXPECT_EQ(local.dispatch(true, 0xAB, 7, in, out), 0);
    EXPECT_TRUE(out.empty()) << "a local object answers for itself";
    expectLine(3, "dispatch(this=0x%p,cc=0xAB,mc=7,orbId=%X) to object failed", address(local),
               server.orbId().value());
    EXPECT_EQ(log_.find("to object failed")->source, "REFLECT_objectStub");
}

TEST_F(ObjectStubTest, StubsOnNothingSayWhereTheyWereMade) {
    void const* const none = nullptr;
    TreflectObjectStub const located(remote(0));
    expectLine(3, "TreflectObjectStub(ol) this=0x%p,object=%p,oid=NULL,ioid=0,orbId=0x1020304",
               address(located), none);
    TreflectObjectStub const copy(located);
    expectLine(3, "TreflectObjectStub(other) this=0x%p,object=%p,ioid=0,orbId=0x1020304",
               address(copy), none);
    TreflectObjectStub assigned;
    assigned = located;
    expectLine(3, "operator=() object=%p,ioid=0,orbId=0x1020304", none);
    Server server(oid("stub.zero"));
    unsigned int const ioid = server.getInternalOID();
    server.setInternalOID(0);
    TreflectObjectStub const onObject(&server);
    server.setInternalOID(ioid);
    expectLine(3, "TreflectObjectStub(object) this=0x%p,object=%p,ioid=0,orbId=0x%X",
               address(onObject), address(server), server.orbId().value());
    TreflectObjectStub const absent(remote(0, oid("absent")));
    EXPECT_EQ(log_.count("TreflectObjectStub(ol)"), 1u) << "a name is somewhere to look for";
}

TEST_F(ObjectStubTest, AnInvalidStubNoLongerReachesTheExceptionContainerOfItsObject) {
    Server server(oid("stub.container"));
    TreflectObjectStub stub(&server);
    for (unsigned int const type : {3u, 4u}) {
        TipprmiExceptionContainer container;
        container.setExceptionType(type);
        stub.setExceptionContainer(container);
        EXPECT_EQ(server.getExceptionContainer().getExceptionType(), 3u);
        EXPECT_EQ(stub.getExceptionContainer().getExceptionType(), type == 3 ? 3u : 1u);
        stub.setInvalid();
    }
}

}  // namespace
