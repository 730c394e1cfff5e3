// Values of every type between two processes, which may be of two word sizes.
#include "ActorProgram.h"
#include "RendezvousFolder.h"

namespace {

using testsupport::ActorProgram;

/** Where a program comes from. */
enum class Build { kOwn, kPeer };
struct Pair {
    Build server;
    Build client;
};

std::string nameOf(testing::TestParamInfo<Pair> const& pair) {
    auto const text = [](Build build) { return build == Build::kOwn ? "Own" : "Peer"; };
    return std::string(text(pair.param.client)) + "To" + text(pair.param.server);
}

class EveryType : public testing::TestWithParam<Pair> {
protected:
    EveryType() : types_(std::stoi(server_.ask("serve echo", "serving"))) {}
    ~EveryType() override { server_.finish(); }

    static ActorProgram::Command command(Build build, std::string const& program) {
        return build == Build::kOwn ? testsupport::programCommand(program)
                                    : testsupport::peerProgramCommand(program);
    }
    /** What another program says of the object. */
    static std::string said(std::string const& program, std::string const& order,
                            std::string const& verb) {
        ActorProgram client(command(GetParam().client, program),
                            {{"REFLECTORB_PROCESS_OBJECT", "1"}});
        std::string const text = client.ask(order + " echo", verb);
        for (std::string const& line : client.child().lines())
            EXPECT_NE(line.substr(0, 5), "fault") << line;
        client.finish();
        return text;
    }

    testsupport::RendezvousFolder const folder_;
    ActorProgram server_{command(GetParam().server, "echo_actor"),
                         {{"REFLECTORB_PROCESS_OBJECT", "1"}}};
    int const types_;  // that the object passes
};

#ifdef STATION_PEER_BUILD
Pair const kPairs[] = {{Build::kPeer, Build::kOwn}, {Build::kOwn, Build::kPeer}};
#else
Pair const kPairs[] = {{Build::kOwn, Build::kOwn}};
#endif
INSTANTIATE_TEST_SUITE_P(From, EveryType, testing::ValuesIn(kPairs), nameOf);

TEST_P(EveryType, ComesBackAsItWasAndHasOneName) {
    EXPECT_GT(types_, 40);
    EXPECT_EQ(said("echo_actor", "use", "used"), std::to_string(types_) + " 1 1");
}

TEST_P(EveryType, IsPassedByWhoLearnsTheClassAndMakesValuesOfWhatItTells) {
    EXPECT_EQ(said("learner", "call", "called"), std::to_string(3 * types_ + 2));
}

}  // namespace
