// The registry of server objects, and finding objects at several brokers.
#include "BrokerTest.h"
#include "Probe.h"
#include "RawPeer.h"

namespace {

using Location = TreflectORB::TreflectObjectLocation;

class RegistryTest : public PermittedTest {
protected:
    /** A peer that knows one object. */
    std::unique_ptr<RawPeer> peerWith(unsigned int ioid) {
        return std::make_unique<RawPeer>(group(), [ioid](RawPeer& self, TreflectMessage& request) {
            self.answer(request, [ioid](TipprmiStream& response) { response << ioid; });
        });
    }
};

TEST_F(RegistryTest, objectIsFoundUnderItsNameFromItsConstructionToItsDestruction) {
    auto probe = std::make_unique<Probe>("lamp");
    Location const found = orb().locateObject(oid("lamp"));
    EXPECT_EQ(found.getInternalOID(), probe->getInternalOID());
    EXPECT_EQ(found.orbId(), orb().orbId());
    EXPECT_EQ(found.getServer(), probe.get());
    static_cast<TipprmiObjectBase&>(*probe).setOID(oid("mast"));
    EXPECT_EQ(orb().locateObject(oid("lamp")).getServer(), nullptr);
    EXPECT_EQ(orb().locateObject(oid("mast")).getServer(), probe.get());
    probe.reset();
    Location const gone = orb().locateObject(oid("mast"));
    EXPECT_EQ(gone.getInternalOID(), 0u);
    EXPECT_EQ(gone.orbId().value(), 0u);
    EXPECT_EQ(gone.getServer(), nullptr);
}

TEST_F(RegistryTest, objectThatReturnsIsWhereItWas) {
    Probe probe("lamp");
    Probe const neighbour("mast");
    unsigned int const id = probe.getInternalOID();
    probe.connect(nullptr, probe.getOID());
    EXPECT_EQ(probe.getInternalOID(), id);
    orb().unregisterObject(&probe);
    EXPECT_EQ(orb().locateObject(oid("lamp")).getInternalOID(), 0u);
    orb().registerObject(&probe);
    EXPECT_EQ(orb().locateObject(oid("lamp")).getInternalOID(), id);
}

TEST_F(RegistryTest, ofEqualNamesTheLowestIdAnswers) {
    std::vector<std::unique_ptr<Probe>> probes;
    for (int i = 0; i < 20; ++i)
        probes.push_back(std::make_unique<Probe>("twin"));
    expectLine(3, "identifier \"twin\" belongs to objects 0x");
    while (!probes.empty()) {
        auto const lowest = std::min_element(
            probes.begin(), probes.end(),
            [](auto const& a, auto const& b) { return a->getInternalOID() < b->getInternalOID(); });
        EXPECT_EQ(orb().locateObject(oid("twin")).getServer(), lowest->get());
        probes.erase(probes.size() % 3 == 0 ? probes.end() - 1 : lowest);
    }
    EXPECT_EQ(orb().locateObject(oid("twin")).getServer(), nullptr);
}

TEST_F(RegistryTest, madeUpNameTellsBrokerAndIdWithoutAnyMessage) {
    RawPeer peer(group());
    Location const location = orb().locateObject(oid("rmi_1020304_ABCD"));
    EXPECT_EQ(location.orbId().value(), 0x01020304u);
    EXPECT_EQ(location.getInternalOID(), 0xABCDu);
    EXPECT_FALSE(location.hasOID());
    EXPECT_EQ(peer.count(), 0u);

    Probe probe("");
    char name[32];
    std::snprintf(name, sizeof name, "rmi_%X_%X", orb().orbId().value(), probe.getInternalOID());
    EXPECT_EQ(orb().locateObject(oid(name)).getServer(), &probe);
}

TEST_F(RegistryTest, ofSeveralBrokersTheLastOfTheGroupWins) {
    auto const first = peerWith(0x11);
    auto const second = peerWith(0x22);
    auto const third = peerWith(0);
    Location const found = orb().locateObject(oid("elsewhere"));
    EXPECT_EQ(found.getInternalOID(), 0x22u);
    EXPECT_EQ(found.orbId(), orb().convertId(second->termId()));
    EXPECT_EQ(third->count(), 1u) << "asked first";
    EXPECT_EQ(first->count(), 0u) << "not asked any more";
}

}  // namespace
