#include "reflect/broker/OrbIdentity.h"

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "transport/IdInfo.h"

namespace {

using Transport::TerminationId;

/** What this process is: its slot, the active controller's, the auxiliary units'. */
class OrbIdentityTest : public testing::Test {
protected:
    void be(int slot, int activeSlot) {
        ASSERT_TRUE(Transport::Setup::slot(slot));
        ASSERT_TRUE(Transport::Setup::activeSlot(activeSlot));
        ASSERT_TRUE(Transport::Setup::axuSlots({5, 9}));
    }
    TerminationId to(NamespaceId ns, unsigned char slot) {
        return identity_.toTerminationId(TreflectOrbId(0x1234, slot, ns));
    }
    TreflectOrbId from(unsigned char slot, Transport::GroupId group) {
        return identity_.toOrbId(TerminationId(0x1234, slot, group));
    }
    void expectLine(int level, std::string const& text) {
        EXPECT_EQ(log_.count(level, "ORB (orbId=0x1020304) " + text), 1u) << text;
        EXPECT_EQ(log_.records().size(), 1u) << text;
        log_.clear();
    }

    testsupport::LogCapture log_;
    OrbIdentity const identity_{TreflectOrbId(0x01020304)};
};

TEST_F(OrbIdentityTest, unitFollowsTheSlotOrTheActiveController) {
    be(1, 2);
    EXPECT_EQ(identity_.groupOf(NSID_UNIT), 1);
    EXPECT_EQ(to(NSID_UNIT, 7), TerminationId(0x1234, 7, 2)) << "group of the active controller";
    EXPECT_EQ(to(NSID_UNIT, 0), TerminationId(0x1234, 2, 2)) << "slot 0 is the active one";
    be(2, 1);
    EXPECT_EQ(identity_.groupOf(NSID_UNIT), 1);
    EXPECT_EQ(to(NSID_UNIT, 7), TerminationId(0x1234, 7, 1));
    EXPECT_EQ(to(NSID_UNIT, 0), TerminationId(0x1234, 1, 1));
    be(2, 2);
    EXPECT_EQ(identity_.groupOf(NSID_UNIT), 2);
    be(5, 1);
    EXPECT_EQ(identity_.groupOf(NSID_UNIT), 2) << "an auxiliary unit, whoever is active";
    EXPECT_EQ(to(NSID_UNIT, 0), TerminationId(0x1234, 5, 2)) << "an auxiliary unit's own slot";
}

TEST_F(OrbIdentityTest, terminationToBrokerIdIsNotTheInverse) {
    be(1, 1);
    EXPECT_EQ(from(7, 1), TreflectOrbId(0x1234, 7, NSID_UNIT));
    EXPECT_EQ(from(5, 2), TreflectOrbId(0x1234, 0, NSID_UNIT)) << "an auxiliary unit's slot";
    EXPECT_EQ(from(5, 3), TreflectOrbId(0x1234, 5, NSID_NODE));
}

TEST_F(OrbIdentityTest, namespacesAndGroupsThatHaveNoCounterpart) {
    be(5, 1);
    EXPECT_EQ(identity_.groupOf(NSID_NODE), 3);
    EXPECT_EQ(identity_.groupOf(static_cast<NamespaceId>(77)), 0);
    EXPECT_EQ(identity_.namespaceOf(1), NSID_UNIT);
    EXPECT_EQ(identity_.namespaceOf(2), NSID_UNIT);
    EXPECT_EQ(identity_.namespaceOf(3), NSID_NODE);
    EXPECT_EQ(identity_.namespaceOf(5), NSID_UNDEF);
    EXPECT_EQ(to(NSID_NODE, 7), TerminationId(0x1234, 7, 3));
    EXPECT_TRUE(log_.records().empty());

    EXPECT_EQ(identity_.groupOf(NSID_UNDEF), 0);
    expectLine(3, "can not handle namespace id NSID_UNDEF");
    EXPECT_EQ(identity_.namespaceOf(0), NSID_UNDEF);
    expectLine(3, "can not handle group id GRPID_UNDEF");
    EXPECT_EQ(identity_.namespaceOf(4), NSID_UNDEF);
    expectLine(6, "has group id TRSPCTRL");
    EXPECT_EQ(to(NSID_NODE, 0), TerminationId(0x1234, 0, 3));
    expectLine(3, "can not handle slot 0 for NSID_NODE");
    EXPECT_EQ(to(NSID_UNDEF, 7), TerminationId(0x1234, 7, 0));
    expectLine(3, "can not handle namespace NSID_UNDEF");
}

}  // namespace
