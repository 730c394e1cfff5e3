// What brokers tell of their traffic and their state, to each other and in the log.
#include <signal.h>

#include <algorithm>
#include <list>
#include <map>
#include <regex>
#include <sstream>

#include "BrokerTest.h"
#include "Gauge.h"
#include "RawPeer.h"
#include "ReflectActor.h"
#include "handler_threads/RunPermission.h"

namespace {

using Lines = std::vector<std::string>;

/** Without leading zeros. */
std::string hex(unsigned int value) {
    std::string const digits = wire::number(value);
    return digits.substr(digits.find_first_not_of('0'));
}

/** A process with a broker, by its actor's name. */
struct Member {
    explicit Member(std::string const& actorName)
        : name(actorName),
          actor(std::make_unique<ReflectActor>(
              ReflectActor::Environment{{"TRANSPORT_ACTOR", actorName}})),
          orbId(actor->publish(name).broker) {}

    Transport::TerminationId termination() const {
        return TreflectORB::getInstance(NSID_UNIT)->convertId(orbId);
    }

    std::string name;
    std::unique_ptr<ReflectActor> actor;
    TreflectOrbId orbId;
};

class DiagnosticsTest : public BrokerTest {
protected:
    ~DiagnosticsTest() override { TreflectORB::debug_ = false; }

    /** Processes with brokers, in ascending order of their terminations. */
    std::vector<Member> startMembers(std::size_t count) {
        std::vector<Member> members;
        for (std::size_t i = 0; i < count; ++i)
            members.emplace_back("member" + std::to_string(i));
        std::sort(members.begin(), members.end(),
                  [](Member const& a, Member const& b) { return a.orbId < b.orbId; });
        for (Member const& member : members)
            EXPECT_SOON(Transport::TransportLayer::instance().exists(member.termination()));
        return members;
    }
    /** Counters as text: "DESTINATION:SENT:FAILED ...". */
    static std::string text(TreflectORB::PerfCntInfo const& info) {
        std::ostringstream words;
        for (unsigned int i = 0; i < info.counters.getLength(); ++i) {
            TreflectORB::PerfCnts const& one = info.counters[i];
            words << (i > 0 ? " " : "") << entry(one.termination, one.sent, one.failed);
        }
        return words.str();
    }
    static std::string entry(Transport::TerminationId destination, unsigned int sent,
                             unsigned int failed) {
        std::ostringstream words;
        words << std::hex << destination.value() << std::dec << ":" << sent << ":" << failed;
        return words.str();
    }
    /** What display writes, with the two figures of memory as "N". */
    Lines displayed(int argument) {
        log_.clear();
        orb().display(argument);
        Lines lines;
        for (testsupport::LogRecord const& record : log_.records()) {
            EXPECT_EQ(record.level, 5);
            lines.push_back(
                record.source + ":" +
                std::regex_replace(record.text, std::regex("(size|free): [1-9][0-9]+$"), "$1: N"));
        }
        return lines;
    }
};

// ---- Counters -----------------------------------------------------------------------------------

TEST_F(DiagnosticsTest, targetThatIsNotThereLeavesAnEmptyInfoAndAFailure) {
    Transport::TerminationId const absent(0x0101FFFEu);
    EXPECT_EQ(text(orb().getPerfCnts(absent)), "");
    EXPECT_EQ(text(orb().getBrokers().front().info), entry(absent, 1, 1));
    EXPECT_EQ(text(orb().getBrokers().front().info), "") << "started afresh";

    TipprmiStream request(100);
    TipprmiStream response(100);
    request.marshall(nullptr, static_cast<int>(Transport::kLargestMessage));
    EXPECT_FALSE(orb().forwardMsg(orb().convertId(absent), false, request, response));
    EXPECT_EQ(log_.count(3, "forwardMsg message incomplete, not sent (iptr_=0,size=100)"), 1u);
    EXPECT_EQ(response.getDataSize(), 12) << "an exception container";
    EXPECT_EQ(text(orb().getBrokers().front().info), entry(absent, 1, 1))
        << "a request that did not get all that was written to it";
}

TEST_F(DiagnosticsTest, groupIsAskedInOrderAndWithoutOneself) {
    std::vector<Member> const members = startMembers(3);
    Lines asked;
    for (TreflectORB::PerfCntMultInfo const& answer : orb().getPerfCnts())
        asked.push_back(answer.info.actor + " " + wire::number(answer.termination.value()));
    Lines expected;
    std::map<std::string, TreflectOrbId> ids{
        {Transport::IdInfo::instance().getActor(), orb().orbId()}};
    for (Member const& member : members) {
        expected.push_back(member.name + " " + wire::number(member.termination().value()));
        ids[member.name] = member.orbId;
    }
    EXPECT_EQ(asked, expected);

    Transport::TerminationId former;
    for (TreflectORB::BrokerInfo const& broker : orb().getBrokers()) {
        EXPECT_LT(former, broker.termination);
        former = broker.termination;
        EXPECT_TRUE(broker.answered);
        EXPECT_EQ(broker.orbId, ids[broker.info.actor]);
        ids.erase(broker.info.actor);
        if (broker.orbId == orb().orbId()) {
            EXPECT_EQ(broker.info.counters.getLength(), members.size())
                << "the queries of getPerfCnts, and not yet those of getBrokers";
        }
    }
    EXPECT_TRUE(ids.empty());
}

TEST_F(DiagnosticsTest, peerThatIsKilledDuringTheQueryIsEmptyAndTheOthersAnswer) {
    std::vector<Member> const members = startMembers(3);
    testsupport::ChildProgram& victim = members[1].actor->child();
    Transport::TerminationId const gone = members[1].termination();
    ASSERT_TRUE(victim.stopWholly());
    std::list<TreflectORB::PerfCntMultInfo> infos;
    std::thread query([&] { infos = orb().getPerfCnts(); });
    TreflectORB::debug_ = true;
    std::string const asked = "destination 0x" + wire::number(gone.value()) + ": sent=1, failed=0";
    EXPECT_TRUE(testsupport::eventually([&] {
        orb().display(0);
        return log_.contains(asked);
    }));
    auto const killed = std::chrono::steady_clock::now();
    victim.kill();
    query.join();
    EXPECT_LT(std::chrono::steady_clock::now() - killed, std::chrono::seconds(20))
        << "ended by the departure, not by the end of the first period of waiting";
    ASSERT_EQ(infos.size(), 3u);
    auto answer = infos.begin();
    for (std::string const& actor : {members[0].name, std::string(), members[2].name})
        EXPECT_EQ((answer++)->info.actor, actor);

    // Counters outlive the brokers that they are about.
    std::string const counters = text(orb().getPerfCnts(broker()));
    EXPECT_NE(counters.find(entry(gone, 1, 1)), std::string::npos) << counters;
    EXPECT_NE(counters.find(entry(members[2].termination(), 1, 0)), std::string::npos) << counters;
    EXPECT_EQ(orb().getPerfCnts().size(), 2u);
}

TEST_F(DiagnosticsTest, brokerThatAnswersNonsenseIsThereWithoutAnAnswer) {
    RawPeer peer(group(), [](RawPeer& self, TreflectMessage& request) {
        self.answer(request, [](TipprmiStream& response) { response << "half" << 3u << 1u; });
    });
    auto const brokers = orb().getBrokers();
    auto const found = std::find_if(brokers.begin(), brokers.end(), [&](auto const& broker) {
        return broker.termination == peer.termId();
    });
    ASSERT_NE(found, brokers.end());
    EXPECT_FALSE(found->answered);
    EXPECT_EQ(found->orbId, orb().convertId(peer.termId()));
    EXPECT_EQ(text(found->info), "");
}

// ---- The state in the log -----------------------------------------------------------------------

TEST_F(DiagnosticsTest, displayTellsTheStateOfTheBroker) {
    orb();
    EXPECT_SOON(TreflectORB::handlerThreads().size() == 0);
    Lines expected{"REFLECT_orb:ORB display: actor " + Transport::IdInfo::instance().getActor() +
                       ", OrbId 0x" + hex(orb().orbId().value()) + ", TermId 0x" +
                       wire::number(broker().value()),
                   "REFLECT_orb:  number of handler threads: 0",
                   "REFLECT_orb:  metaData: size=0, co=0, do=0, oi=0, rco=0, rdo=0",
                   "REFLECT_orb:  actor size: N", "REFLECT_orb:  unit free: N"};
    EXPECT_EQ(displayed(0), expected);

    TreflectHandlerState const handlerState(true);
    handlerthreads::trustPermission();
    {
        Watcher observer("silent");
        Node const thing("thing");
        EXPECT_TRUE(orb().notifyCreation(2, thing));
        for (unsigned int classId : {1u, 1u, 3u})
            EXPECT_TRUE(orb().observeCreations(classId, observer, false));
        for (unsigned int classId : {1u, 2u})
            EXPECT_TRUE(orb().observeDeletions(classId, observer));
        for (unsigned int broker : {1u, 2u, 3u, 4u, 4u})
            orb().addRemoteCreationObserver(1 + broker % 2, TreflectOrbId(0x01010000 | broker),
                                            nullptr);
        for (unsigned int broker : {1u, 2u, 3u, 4u, 5u})
            orb().addRemoteDeletionObserver(3, TreflectOrbId(0x01010000 | broker));
        expected[1] = "REFLECT_orb:  number of handler threads: 1";
        expected[2] = "REFLECT_orb:  metaData: size=3, co=3, do=2, oi=1, rco=4, rdo=5";
        EXPECT_EQ(displayed(0), expected);
        EXPECT_EQ(displayed(7), expected);
    }
    expected[2] = "REFLECT_orb:  metaData: size=3, co=0, do=0, oi=0, rco=4, rdo=5";
    EXPECT_EQ(displayed(-1), expected);

    Transport::TerminationId const absent(0x0101FFFEu);
    orb().getPerfCnts(absent);
    orb().getPerfCnts(absent);
    EXPECT_EQ(displayed(0), expected);
    TreflectORB::debug_ = true;
    expected.push_back("REFLECT_orb:  destination 0x0101FFFE: sent=2, failed=2");
    expected.push_back("REFLECT_OrbObserver:ORB (termId=0x" + hex(broker().value()) +
                       ") has 0 observer registered:");
    EXPECT_EQ(displayed(0), expected);
    EXPECT_EQ(displayed(0), expected) << "showing the counters does not reset them";
}

// ---- The reset of the unit ----------------------------------------------------------------------

TEST_F(DiagnosticsTest, resetCollectsLogsAndAbortsWhateverComesOfIt) {
    std::map<int, std::string> const outcomes{
        {0, " QMB_FCT log collection script executed successfully"},
        {3, " QMB_FCT log collection failed with status:3"}};
    for (auto const& [code, outcome] : outcomes) {
        Member const member("member");
        member.actor->ask("script " + std::to_string(code), "script");
        RawPeer peer(group());
        TreflectMessage failure =
            peer.make(1, TreflectMessage::tPayload, TreflectMessage::kResponseFailure);
        EXPECT_SOON(peer.send(member.termination(), failure) == 1);
        testsupport::ChildProgram& child = member.actor->child();
        EXPECT_EQ(child.exitCode(), -SIGABRT);
        EXPECT_EQ(member.actor->await("script"), "/opt/vdk/bin/QMB_FCT_logs.sh");
        EXPECT_TRUE(child.waitForErrorLine(" ORB 0x" + wire::number(member.termination().value()) +
                                           " requests UNIT RESET"));
        EXPECT_TRUE(child.waitForErrorLine(outcome));
        EXPECT_FALSE(child.waitForErrorLine("REFLECT_")) << "nothing behind it";
    }
}

TEST_F(DiagnosticsTest, whoGoesOnAndIsToldOfSilenceAgainAndAgainDoesNotFillItsLog) {
    struct GoesOn {
        GoesOn() { Transport::Setup::failOnSilence(true); }
        ~GoesOn() { Transport::Setup::failOnSilence(false); }
    } const goesOn;
    RawPeer peer(group());
    TreflectMessage failure =
        peer.make(1, TreflectMessage::tPayload, TreflectMessage::kResponseFailure);
    constexpr int kTold = 200;
    for (int i = 0; i < kTold; ++i)
        EXPECT_SOON(peer.send(broker(), failure) == 1);
    // What it sends is received in turn.
    TreflectMessage query = peer.make(2, TreflectMessage::tPerfCounters, TreflectMessage::kRequest);
    peer.send(broker(), query);
    EXPECT_EQ(peer.await(0).kind(), TreflectMessage::kResponse);
    for (auto const& [level, text] :
         {std::pair(0, "received response failure message"), {3, "goes on instead of an abort"}}) {
        EXPECT_GE(log_.count(level, text), 5u);
        EXPECT_LT(log_.count(level, text), kTold / 4u);
    }
}

}  // namespace
