// Brokers of a unit and of the node in one process, and units on one machine told apart by slot.
#include "StationActor.h"

namespace {

class NamespacesTest : public StationTest {
protected:
    /** Slots 1 and 2 are controllers, 3 and 4 auxiliary units. */
    static StationActor::Environment inSlot(int slot) {
        return {{"TRANSPORT_SLOT", std::to_string(slot)},
                {"TRANSPORT_ACTIVE_SLOT", "1"},
                {"TRANSPORT_AXU_SLOTS", "3,4"}};
    }
    /** A process with an object of its unit and one of the node. */
    std::unique_ptr<StationActor> start(int slot, std::string const& name) {
        auto actor = std::make_unique<StationActor>(inSlot(slot));
        auto const unit = actor->publishStation("unit." + name, "1");
        auto const node = actor->publishStation("node." + name, "2");
        if (slot == 1) {
            EXPECT_EQ(unit.termination >> 16, 0x0101u);
            EXPECT_EQ(node.termination >> 16, 0x0301u);
            EXPECT_EQ(unit.broker >> 16, 0x0101u);
            EXPECT_EQ(node.broker >> 16, 0x0201u);
        }
        return actor;
    }
    static std::string called(StationActor& actor, std::string const& name, std::string const& ns) {
        return actor.does("keep " + name + " " + ns) ? actor.ask("use " + name, "used")
                                                     : "not found";
    }
    /** A process asks those that it has noticed, which takes those that have just come up a moment.
     */
    static bool isFound(StationActor& actor, std::string const& name, std::string const& ns) {
        return testsupport::eventually([&] { return called(actor, name, ns) == "1"; });
    }
    static void setActive(std::vector<StationActor*> const& actors, int slot) {
        for (StationActor* const actor : actors)
            actor->does("active " + std::to_string(slot));
    }
};

TEST_F(NamespacesTest, objectsOfTheNodeAreFoundEverywhereThoseOfAUnitInItsGroup) {
    std::map<std::string, std::unique_ptr<StationActor>> actors;
    std::map<std::string, int> const slots{{"one", 1}, {"two", 2}, {"three", 3}, {"mate", 3}};
    for (auto const& [name, slot] : slots)
        actors[name] = start(slot, name);
    auto const isAuxiliary = [&](std::string const& name) { return slots.at(name) > 2; };
    for (auto const& [from, fromSlot] : slots)
        for (auto const& [to, toSlot] : slots) {
            EXPECT_TRUE(isFound(*actors[from], "node." + to, "2")) << from << " to " << to;
            bool const sameUnit = isAuxiliary(from) == isAuxiliary(to);
            EXPECT_TRUE(sameUnit ? isFound(*actors[from], "unit." + to, "1")
                                 : called(*actors[from], "unit." + to, "1") == "not found")
                << from << " to " << to;
        }
    for (auto& entry : actors)
        entry.second->finish();
}

TEST_F(NamespacesTest, unitFollowsTheActiveControllerWhileItRuns) {
    auto const one = start(1, "one");
    auto const two = start(2, "two");
    auto const three = start(3, "three");
    auto const mate = start(3, "mate");
    std::vector<StationActor*> const all{one.get(), two.get(), three.get(), mate.get()};
    EXPECT_TRUE(isFound(*one, "unit.two", "1"));
    EXPECT_TRUE(isFound(*three, "unit.mate", "1"));
    EXPECT_TRUE(isFound(*three, "node.two", "2"));

    // Addresses of a unit are worked out at each call.
    setActive(all, 2);
    EXPECT_EQ(one->ask("use unit.two", "used"), "0 0") << "no such termination in group 2";
    EXPECT_EQ(three->ask("use unit.mate", "used"), "1") << "an auxiliary unit is its own";
    EXPECT_EQ(three->ask("use node.two", "used"), "1") << "as is the node";
    setActive(all, 1);
    EXPECT_EQ(one->ask("use unit.two", "used"), "1") << "the handle was not at fault";

    // A broker that is made anew joins the group of that moment.
    setActive(all, 2);
    EXPECT_EQ(called(*three, "unit.two", "1"), "not found");
    for (char const* command : {"unpublish unit.two", "unpublish node.two", "renew"})
        EXPECT_TRUE(two->does(command));
    EXPECT_EQ(two->publishStation("unit.two").termination >> 16, 0x0202u);
    EXPECT_TRUE(isFound(*three, "unit.two", "1"));
    EXPECT_EQ(called(*one, "unit.two", "1"), "not found");
    for (StationActor* const actor : all)
        actor->finish();
}

}  // namespace
