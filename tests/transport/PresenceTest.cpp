// Processes that see each other come, stop and die, through a rendezvous folder.
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <functional>

#include "HandMadeLink.h"
#include "Slowness.h"
#include "TransportActor.h"
#include "Waiting.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/ReceiverOwner.h"
#include "platform/transport/local/Switchboard.h"

namespace transporttest {
namespace {

using testsupport::eventually;
using testsupport::kSlow;

class PresenceTest : public ActorsTest {
protected:
    /** Actors with a termination each, in the order of their process ids, all knowing all. */
    void startActors(std::size_t count) {
        addActors(count);
        std::sort(actors_.begin(), actors_.end(),
                  [](auto& a, auto& b) { return a->child().pid() < b->child().pid(); });
        for (auto& actor : actors_)
            ids_.push_back(actor->start());
        ASSERT_TRUE(allKnow(count));
    }

    /** Kills some actors and expects all those not `deaf` to be told. */
    void killAndExpectAllToBeTold(std::vector<std::size_t> const& victims,
                                  std::vector<std::size_t> const& deaf = {}) {
        for (std::size_t const victim : victims)
            actors_[victim]->child().kill();
        auto const isIn = [](auto const& list, std::size_t i) {
            return std::find(list.begin(), list.end(), i) != list.end();
        };
        for (std::size_t i = 0; i < actors_.size(); ++i) {
            if (isIn(victims, i) || isIn(deaf, i))
                continue;
            for (std::size_t const victim : victims)
                EXPECT_TRUE(actors_[i]->waitUntilTold("departed", ids_[victim]));
        }
    }

    std::vector<std::string> ids_;
};

TEST_F(PresenceTest, arrivalsAndOrderlyDeparturesAreToldToAllGroups) {
    PresenceActor first(PresenceActor::Environment{{"TRANSPORT_SLOT", "1"}});
    PresenceActor second(PresenceActor::Environment{{"TRANSPORT_SLOT", "2"}});
    std::string const a = first.start(1);
    std::string const b = second.start(2);
    std::string const c = second.start(3);
    for (std::string const& id : {a, b, c}) {
        EXPECT_TRUE(first.waitUntilTold("arrived", id));
        EXPECT_TRUE(second.waitUntilTold("arrived", id));
    }
    EXPECT_EQ(a.substr(0, 4) + b.substr(0, 4) + c.substr(0, 4), "010102020302");
    EXPECT_NE(fileOf(c).string().find("group3.slot2.pid"), std::string::npos) << fileOf(c);
    second.does("stop " + b);
    EXPECT_TRUE(first.waitUntilTold("departed", b));
    EXPECT_TRUE(second.waitUntilTold("departed", b));
    EXPECT_EQ(first.timesTold("arrived", a), 1u);
    EXPECT_EQ(second.timesTold("arrived", c), 2u) << "once for each of its terminations";
    EXPECT_EQ(fileOf(b), "");
    EXPECT_SOON(first.known() == 2 && second.known() == 2);
}

TEST_F(PresenceTest, stoppedNeighboursHideNobodysDeath) {
    startActors(6);
    for (std::size_t const stopped : {2u, 3u})
        EXPECT_TRUE(actors_[stopped]->child().stopWholly());
    killAndExpectAllToBeTold({4}, {2, 3});
    for (std::size_t const stopped : {2u, 3u}) {
        actors_[stopped]->child().signal(SIGCONT);
        EXPECT_TRUE(actors_[stopped]->waitUntilTold("departed", ids_[4]));
    }
}

TEST_F(PresenceTest, withoutProcessHandlesDeathsAreSeenByLookingFromTimeToTime) {
    addActors(3);
    for (auto& actor : actors_) {
        if (!actor->does("withoutHandles"))
            GTEST_SKIP() << "the kernel or the emulator cannot filter system calls";
        ids_.push_back(actor->start());
    }
    ASSERT_TRUE(allKnow(3));
    killAndExpectAllToBeTold({1});
}

TEST_F(PresenceTest, processThatBecomesAnotherProgramIsSeenOnceAChannelHasEnded) {
    startActors(4);
    actors_[1]->child().writeLine("exec");
    std::string const name = "/proc/" + std::to_string(actors_[1]->child().pid()) + "/comm";
    ASSERT_TRUE(eventually([&] {
        std::string comm;
        std::getline(std::ifstream(name), comm);
        return comm == "sleep";
    }));
    actors_[0]->does("suspect " + ids_[2]);  // is well
    actors_[0]->does("suspect " + ids_[1]);
    for (std::size_t const i : {0u, 2u, 3u})
        EXPECT_TRUE(actors_[i]->waitUntilTold("departed", ids_[1]));
    EXPECT_EQ(actors_[0]->known(), 3u);
    EXPECT_EQ(fileOf(ids_[1]), "");
}

TEST_F(PresenceTest, deathsAtTheSameTimeAreAllSeenAlsoOfAWholeNeighbourhood) {
    startActors(10);
    killAndExpectAllToBeTold({2, 3, 4, 5, 6, 7});
    for (int more = 0; more < 66; ++more)  // than are judged in one go
        actors_[8]->start();
    EXPECT_SOON(actors_[9]->known() == 70);
    killAndExpectAllToBeTold({8}, {2, 3, 4, 5, 6, 7});
    EXPECT_SOON(actors_[9]->known() == 3 && actors_[0]->known() == 3);
}

TEST_F(PresenceTest, whatACrashHasLeftIsRemovedAndNeverTold) {
    startActors(2);
    for (auto& actor : actors_)
        EXPECT_TRUE(actor->child().stopWholly());  // so that neither cleans up behind the other
    for (auto& actor : actors_)
        actor->child().kill();
    for (auto& actor : actors_)
        ASSERT_EQ(actor->child().exitCode(), -SIGKILL);
    std::string const visible = fileOf(ids_[0]);
    std::string const hidden = inFolder(".new-030112ab.group3.slot1.pid1.x");
    ASSERT_NE(visible, "");
    std::filesystem::rename(fileOf(ids_[1]), hidden);
    PresenceActor fresh;
    std::string const id = fresh.start();
    EXPECT_EQ(fresh.known(), 1u);
    EXPECT_FALSE(std::filesystem::exists(visible));
    EXPECT_FALSE(std::filesystem::exists(hidden));
    EXPECT_NE(id, ids_[0]);
    EXPECT_NE(id, ids_[1]);
    EXPECT_EQ(fresh.timesTold("arrived", ids_[0]), 0u);
}

/** A process that shows terminations of other machines. */
class Link : public PresenceActor {
public:
    Link() : linking_(ask("link", "linking")) {}
    bool isDone() const { return linking_ == "0"; }

private:
    std::string const linking_;
};

TEST_F(PresenceTest, terminationsOfOtherMachinesComeAndGoWithTheLinkSilentOnesUnnoticed) {
    startActors(2);
    std::string const stale = inFolder("03020001.group3.slot2.pid1.x");
    ASSERT_EQ(mknod(stale.c_str(), S_IFSOCK | 0600, 0), 0);
    for (int round = 1; round <= 2; ++round) {
        Link link;
        ASSERT_TRUE(link.isDone());
        EXPECT_EQ(link.known(), 2u) << "without a termination of its own";
        ASSERT_TRUE(link.does("members 03020001 03030001")) << "local ones have this name id, too";
        ASSERT_TRUE(link.does("silent 01020002"));
        EXPECT_EQ(fileOf("01020002").string().find("01020002~group1.slot2.pid"),
                  inFolder("").size());
        EXPECT_FALSE(std::filesystem::exists(stale));
        PresenceActor newcomer;
        std::string const late = newcomer.start();
        for (PresenceActor* actor :
             {&*actors_[0], &*actors_[1], &newcomer, static_cast<PresenceActor*>(&link)}) {
            EXPECT_SOON(actor->known() == 5 && actor->does("exists 01020002"));
            EXPECT_EQ(actor->timesTold("arrived", "01020002"), 0u);
        }
        link.child().kill();
        for (PresenceActor* actor : {&*actors_[0], &*actors_[1], &newcomer}) {
            for (std::string const id : {"03020001", "03030001", "01020002"})
                EXPECT_SOON(actor->timesTold("departed", id) == (actor == &newcomer ? 1u : round));
            EXPECT_FALSE(actor->does("exists 01020002"));
        }
    }
}

TEST_F(PresenceTest, aFolderHasOneLinkWhateverBecomesOfItsFileAndItTakesNoAddressOfOthers) {
    Peer local;
    Link link;
    EXPECT_FALSE(link.does("members 03020001 " + hex(local.id())));
    EXPECT_TRUE(link.child().waitForErrorLine("of another machine cannot be shown: process " +
                                              std::to_string(local.child().pid())));
    EXPECT_FALSE(link.does("silent 03020001"));
    EXPECT_TRUE(link.child().waitForErrorLine("of another machine cannot be shown: process " +
                                              std::to_string(link.child().pid())));
    PresenceActor seer;
    seer.start();
    ASSERT_TRUE(link.does("silent 01020100"));
    EXPECT_SOON(seer.does("exists 01020100"));
    for (PresenceActor* actor : {&seer, static_cast<PresenceActor*>(&link)})
        EXPECT_LT(actor->start().substr(4), "0100") << "it goes on from name ids of its own slot";
    std::string const refusal = "Process " + std::to_string(link.child().pid()) + " is the link";
    for (char const* file : {"as it was", "replaced"}) {
        Link other;
        EXPECT_FALSE(other.isDone()) << file;
        EXPECT_TRUE(other.child().waitForErrorLine(refusal));
        std::filesystem::remove(shared());
        PresenceActor().start();
        EXPECT_TRUE(link.child().waitForErrorLine("has moved over"));
    }
}

/** Has something done where the channels are told that one is gone, before anybody else is. */
class OnGone {
public:
    explicit OnGone(std::function<void(Transport::TerminationId)> what) {
        does() = std::move(what);
        former() = Transport::Rendezvous::instance().goneHook(
            [](Transport::TerminationId id, Transport::Rendezvous::Whose whose) {
                does()(id);
                if (former() != nullptr)
                    former()(id, whose);
            });
    }
    ~OnGone() { Transport::Rendezvous::instance().goneHook(former()); }

private:
    static Transport::Rendezvous::GoneHook& former() {
        static Transport::Rendezvous::GoneHook hook = nullptr;
        return hook;
    }
    static std::function<void(Transport::TerminationId)>& does() {
        static std::function<void(Transport::TerminationId)> what;
        return what;
    }
};

TEST_F(PresenceTest, whoStartsWhileTheLastOneOfItsProcessStopsMeetsAllTheOthers) {
    Transport::Rendezvous& rendezvous = Transport::Rendezvous::instance();
    Peer const other;
    auto last = std::make_unique<testsupport::HandMadeEntry>(kGroup);
    ASSERT_SOON(rendezvous.exists(other.id()));
    std::unique_ptr<testsupport::HandMadeEntry> next;
    bool meets = false;
    OnGone const whileItStops([&](Transport::TerminationId) {
        next = std::make_unique<testsupport::HandMadeEntry>(kGroup);
        meets = rendezvous.exists(other.id());
    });
    last.reset();
    EXPECT_TRUE(meets);
}

/** Stands for a termination of another machine. */
struct Stand final : Transport::ReceiverOwner {
    void received(Transport::AddressedMessage const&) override { ++messages; }
    void cameBack(Transport::AddressedMessage const&, Transport::Reached) override {}

    std::atomic<int> messages{0};
};

TEST_F(PresenceTest, whoTakesTheIdOfOneThatHasDiedIsKnownByItAlsoBeforeThatIsNoticed) {
    Transport::Rendezvous& rendezvous = Transport::Rendezvous::instance();
    TestTermination own;
    ASSERT_EQ(own.start(), 1);
    Peer first;
    Peer second;
    ASSERT_SOON(rendezvous.exists(first.id()) && rendezvous.exists(second.id()));
    ASSERT_TRUE(second.child().stopWholly()) << "it buries nobody";
    auto const buried = std::make_shared<testsupport::Gate>();
    auto const goOn = std::make_shared<testsupport::Gate>();
    OnGone const holdUp([buried, goOn, held = first.id()](Transport::TerminationId id) {
        if (id != held)
            return;
        buried->open();
        EXPECT_TRUE(goOn->wait());
    });
    first.child().kill();
    ASSERT_TRUE(buried->wait());
    second.child().kill();
    auto const member = Transport::Visibility::Member;
    EXPECT_SOON(rendezvous.adopt(second.id(), "heir", "x", member)) << "it dies";
    EXPECT_TRUE(rendezvous.exists(second.id())) << "who notices that is held up";
    Stand stand;
    auto const receiver = std::make_shared<Transport::Receiver>(second.id(), stand);
    ASSERT_TRUE(receiver->prepare());
    Transport::Switchboard::instance().add(receiver);
    Transport::OpenSocket socket(rendezvous.publish(second.id()));
    EXPECT_TRUE(socket.valid());
    EXPECT_EQ(rendezvous.ownerOf(second.id()).process, ::getpid());
    EXPECT_TRUE(receiver->start(std::move(socket)));
    EXPECT_EQ(own.send(second.id(), TestHead::Numbered, 0), 1) << "what became of the dead one";
    EXPECT_SOON(stand.messages == 1);
    goOn->open();
    rendezvous.withdraw(second.id());
    receiver->stop();
}

TEST_F(PresenceTest, whoIsThereIsNotReplacedByWhoTakesItsIdInANewFile) {
    Transport::Rendezvous& rendezvous = Transport::Rendezvous::instance();
    testsupport::HandMadeEntry const own(kGroup);
    constexpr int kMore = 12;
    Peer other;
    std::vector<Transport::TerminationId> ids{other.id()};
    for (int i = 0; i < kMore; ++i)
        ids.emplace_back(static_cast<unsigned int>(std::stoul(other.start(), nullptr, 16)));
    for (Transport::TerminationId const id : ids)
        ASSERT_SOON(rendezvous.exists(id));
    ASSERT_TRUE(other.child().stopWholly());
    std::filesystem::remove(shared());
    auto const began = std::chrono::steady_clock::now();
    for (Transport::TerminationId const id : ids)
        ASSERT_TRUE(rendezvous.adopt(id, "heir", "x", Transport::Visibility::Member));
    for (Transport::OpenSocket const& socket : rendezvous.publish(ids))
        EXPECT_FALSE(socket.valid());
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(kMore / 2))
        << "it waits for each";
    EXPECT_EQ(rendezvous.ownerOf(other.id()).process, other.child().pid());
    EXPECT_NE(fileOf(hex(other.id())).string().find(std::to_string(other.child().pid())),
              std::string::npos);
    rendezvous.withdraw(ids);
    other.child().signal(SIGCONT);
    EXPECT_SOON(other.knowsAll(2 + kMore));
}

TEST_F(PresenceTest, nameIdsAreNotGivenAgainSoon) {
    startActors(2);
    std::vector<std::string> ids = ids_;
    for (int i = 0; i < 100; ++i) {
        PresenceActor& actor = *actors_[static_cast<std::size_t>(i) % 2];
        ids.push_back(actor.start());
        actor.does("stop " + ids.back());
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
}

TEST_F(PresenceTest, forkedChildDoesNothingAndItsEndHarmsNobody) {
    startActors(2);
    EXPECT_TRUE(actors_[0]->does("fork"));
    PresenceActor another;  // its start has everybody scan and a neighbour check the locks
    another.start();
    EXPECT_SOON(another.known() == 3);
    EXPECT_EQ(actors_[1]->timesTold("departed", ids_[0]), 0u);
}

TEST_F(PresenceTest, programThatForksBeforeItsFirstTerminationIsLikeAnyOther) {
    startActors(1);
    PresenceActor daemon;
    EXPECT_EQ(daemon.ask("identity", "identity"), "1 1 transport_actor");
    EXPECT_TRUE(daemon.does("daemonize"));
    std::string const id = daemon.start();
    EXPECT_TRUE(actors_[0]->waitUntilTold("arrived", id));
    EXPECT_EQ(daemon.known(), 2u);
    daemon.child().writeLine("quit");
    EXPECT_TRUE(actors_[0]->waitUntilTold("departed", id));
}

TEST_F(PresenceTest, descriptorsAreNotPassedOnToPrograms) {
    PresenceActor before;
    std::string const without = before.ask("inheritable", "inheritable");
    before.start();
    PresenceActor other;
    other.start();
    ASSERT_SOON(before.known() == 2);
    EXPECT_EQ(before.ask("inheritable", "inheritable"), without);
}

TEST_F(PresenceTest, manyTerminationsComingAndGoingAtOnceAreAllSeenByAll) {
    std::size_t const processes = kSlow ? 5 : 20;
    std::size_t const each = kSlow ? 4 : 10;
    addActors(processes);
    ASSERT_NO_FATAL_FAILURE(churn(each, 10));
    EXPECT_TRUE(allAgree(processes * each)) << actors_[0]->view();
    for (std::size_t i = 0; i < actors_.size(); ++i)
        actors_.erase(actors_.begin() + static_cast<std::ptrdiff_t>(i));  // is killed
    EXPECT_TRUE(allAgree(actors_.size() * each)) << actors_[0]->view();
}

}  // namespace
}  // namespace transporttest
