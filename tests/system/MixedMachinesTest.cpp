// Programs of this word size on one machine, of another on the other, behind links that are there
// for the machine's own processor only.
#include "Machines.h"

namespace machines {
namespace {

ActorProgram::Command ofOtherSize(Machine const& machine, std::string const& program) {
    return machine.within(testsupport::peerProgramCommand(program));
}

TEST(MixedMachinesTest, programs_of_two_word_sizes_reach_each_other_across_machines) {
    if (access(LINK_PROGRAM, X_OK) != 0)
        GTEST_SKIP() << "the build of the other word size has no link";
    Network const network;
    if (!network.made())
        GTEST_SKIP() << "network namespaces need root, iproute2, and the right to enter them";
    Machine one{1}, two{2};
    one.startLink();
    two.startLink();
    one.awaitLinked();
    two.awaitLinked();

    auto const here = one.station();
    StationActor there(two.environment(), ofOtherSize(two, "station_actor"));
    here->publishStation("here", "2");
    there.publishStation("there", "2");
    EXPECT_SOON(here->does("keep there 2"));
    EXPECT_SOON(there.does("keep here 2"));
    EXPECT_EQ(here->ask("use there", "used"), "1");
    EXPECT_EQ(there.ask("use here", "used"), "1");

    auto const sender = one.actor("transport_actor");
    ActorProgram receiver(ofOtherSize(two, "transport_actor"), two.environment());
    std::string const from = sender->ask("join", "id"), to = receiver.ask("join", "id");
    sender->tell("flood " + to + " 5000 100");
    receiver.tell("flood " + from + " 2 5000000");
    EXPECT_SOON(receiver.ask("report", "report") == "5000 0 0 0");
    EXPECT_SOON(sender->ask("report", "report") == "2 0 0 0");
}

}  // namespace
}  // namespace machines
