// Observers of creations and deletions, here and in other processes, and what gets in their way.
#include "NoticeTest.h"

namespace {

using NotificationTest = NoticeTest;

// ---- Who is told of what -----------------------------------------------------------------------

TEST_F(NotificationTest, objectsOfOtherProcessesAreToldOfWithTheirHandle) {
    ReflectActor publisher;
    publisher.know("7001");
    std::vector<unsigned int> ioids;
    Names answers;
    Watcher& created = creations();
    Watcher& deleted = deletions();
    permitted([&] {
        created.react = [&] {
            ioids.push_back(created.getSource()->getStub_()->getInternalOID());
            answers.push_back(created.getSource()->getRelName());  // of who waits for us
        };
        deleted.react = [&] { ioids.push_back(deleted.getSource()->getStub_()->getInternalOID()); };
    });
    auto const lamp = publisher.create("lamp", "7001");
    EXPECT_EQ(told(created), Names{"lamp"}) << "known when the publisher goes on";
    EXPECT_EQ(told(deleted), Names{});
    publisher.create("mast", "7002");
    publisher.destroy("lamp");
    EXPECT_EQ(told(created), Names{"lamp"});
    EXPECT_EQ(told(deleted), Names{"lamp"});
    EXPECT_EQ(ioids, (std::vector<unsigned int>{lamp.ioid, lamp.ioid}));
    EXPECT_EQ(answers, Names{"lamp"});
    publisher.finish();
}

TEST_F(NotificationTest, endOfOneKindSilencesNobodyElse) {
    ReflectActor publisher;
    publisher.know("7001");
    auto const neighbour = arrived();
    auto const cancelled = [&] {
        return neighbour->count(TreflectMessage::tOCNUnsubscribe) +
               neighbour->count(TreflectMessage::tODNUnsubscribe);
    };
    Watcher& both = creations();
    observeDeletions(both);
    Watcher& deleted = deletions();
    publisher.create("first", "7001");
    permitted([&] { lamps().endCreations(&both); });
    publisher.create("second", "7001");
    publisher.destroy("first");
    EXPECT_EQ(told(both), (Names{"first", "first"}));
    EXPECT_EQ(told(deleted), Names{"first"});

    observe(both);
    permitted([&] { lamps().endDeletions(&both); });
    publisher.create("third", "7001");
    publisher.destroy("second");
    EXPECT_EQ(told(both), (Names{"first", "first", "third"}));
    EXPECT_EQ(told(deleted), (Names{"first", "second"}));

    permitted([&] {
        lamps().endDeletions(&deleted);
        lamps().endCreations(nullptr);
    });
    EXPECT_EQ(cancelled(), 0u);
    for (int i = 0; i < 2; ++i)
        permitted([&] { lamps().endCreations(&both); });
    EXPECT_EQ(cancelled(), 1u) << "once when nobody observes any more, which ends both kinds";
    publisher.destroy("third");
    EXPECT_EQ(told(both).size() + told(deleted).size(), 5u);
    publisher.finish();
}

TEST_F(NotificationTest, existingObjectsOfAllProcessesAreToldOnce) {
    ArrivalWatch arrivals(orb());
    ReflectActor first, second;
    for (auto const& made : {first.create("a", "7001"), second.create("b", "7001")})
        EXPECT_TRUE(arrivals.await(made.termination));
    second.create("c", "7001");
    second.create("other", "7002");
    create("d");
    Watcher& fresh = creations();
    observe(fresh);
    Watcher& all = creations(true);
    Names names = told(all);
    EXPECT_EQ(names[0], "d") << "one's own first";
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Names{"a", "b", "c", "d"}));
    EXPECT_EQ(told(fresh), Names{});
    first.create("e", "7001");
    EXPECT_EQ(told(all).back(), "e");
    EXPECT_EQ(told(fresh), Names{"e"}) << "registered twice, told once, and removed wholly";
    remove(fresh);
    create("f");
    EXPECT_EQ(told(all).back(), "f");
    EXPECT_EQ(told(fresh), Names{"e"});
    first.finish();
    second.finish();
}

TEST_F(NotificationTest, onlyItsOwnProcessTellsOfAnObject) {
    ReflectActor publisher;
    publisher.know("7001");
    auto const forger = arrived();
    Watcher& created = creations();
    Watcher& deleted = deletions();
    auto const lamp = publisher.create("lamp", "7001");
    std::string const victim = wire::handle("lamp", lamp.ioid, lamp.broker);
    constexpr int kMany = 100;
    for (int i = 0; i < kMany; ++i) {
        forger->create(broker_, victim);
        forger->destroy(broker_, victim);
    }
    forger->create(broker_, object("own", *forger));
    EXPECT_TRUE(awaitTold(created, {"lamp", "own"}));
    forger->destroy(broker_, object("own", *forger));
    EXPECT_TRUE(awaitTold(deleted, {"own"}));
    EXPECT_GE(log_.count(3, " about an object of ORB "), 5u);
    EXPECT_LE(log_.count(3, " about an object of ORB "), 20u) << "others could fill the log";

    forger->list({victim, object("another", *forger)});
    Watcher& all = creations(true);
    Names names = told(all);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Names{"another", "lamp"})) << "each by whose it is, once";
    publisher.destroy("lamp");
    EXPECT_TRUE(awaitTold(deleted, {"own", "lamp"}));
    publisher.finish();
}

TEST_F(NotificationTest, listMayChangeInsideEveryNotice) {
    Watcher& changing = creations();
    Watcher& removed = creations();
    Watcher& destroyed = creations();
    Watcher& added = watcher();
    changing.react = [&] {
        if (changing.told.back() != "a")
            return;
        remove(removed);
        discard(destroyed);
        remove(changing);
        observe(added);
        observe(changing);
    };
    create("a");
    EXPECT_EQ(told(changing), Names{"a"}) << "back at the end, and told already";
    EXPECT_EQ(told(removed), Names{});
    EXPECT_EQ(told(added), Names{"a"});
    create("b");
    EXPECT_EQ(told(changing), (Names{"a", "b"}));
    EXPECT_EQ(told(added), (Names{"a", "b"}));
}

TEST_F(NotificationTest, observerThatThrowsOrKeepsThePermissionDoesNotStopTheOthers) {
    creations(false, [] { throw std::runtime_error("no"); });
    creations(false, [] { TreflectORB::leaveHandlerState(true); });
    creations(false, [] { TreflectORB::getRunPermission(); });
    Watcher& last = creations();
    permitted([this] {
        create("a");
        EXPECT_EQ(TreflectORB::getRunPermissionCount(), 1u);
    });
    EXPECT_FALSE(TreflectORB::isHandlerThread());
    EXPECT_EQ(told(last), Names{"a"});
    EXPECT_TRUE(log_.contains("threw no"));
}

// ---- What happens while a registration waits ---------------------------------------------------

/** An observer that registers on a thread of its own, and waits for a neighbour that does not
 * answer before it is told to. */
class WaitingRegistrationTest : public NoticeTest {
protected:
    ~WaitingRegistrationTest() override {
        if (registering_.joinable())
            registering_.join();
    }
    void begin(std::function<void()> const& registration) {
        registering_ = std::thread(registration);
        neighbour_->awaitHeld();
    }
    void end() {
        neighbour_->answerHeld();
        registering_.join();
    }

    std::unique_ptr<Neighbour> const neighbour_ = arrived(Neighbour::first(1));
    Watcher& watching_ = watcher();
    std::thread registering_;
};

TEST_F(WaitingRegistrationTest, noticesAreKeptForIt) {
    create("old");
    begin([&] { observe(watching_, true); });
    create("new");
    create("shortLived");
    destroy("shortLived");
    EXPECT_EQ(told(watching_), Names{"old"});
    end();
    EXPECT_EQ(told(watching_), (Names{"old", "new"}));
    create("next");
    EXPECT_EQ(told(watching_), (Names{"old", "new", "next"}));
}

TEST_F(WaitingRegistrationTest, deletionsAreKeptForIt) {
    for (char const* const name : {"a", "b"})
        create(name);
    begin([&] { observeDeletions(watching_); });
    for (char const* const name : {"a", "b"})
        destroy(name);
    create("a");
    destroy("a");
    end();
    EXPECT_EQ(told(watching_), (Names{"a", "b", "a"}));
}

TEST_F(WaitingRegistrationTest, observerThatIsRemovedMeanwhileIsNotEntered) {
    begin([&] { observe(watching_, true); });
    create("a");
    std::thread removing([&] { remove(watching_); });  // cancels when the subscription is through
    end();
    removing.join();
    create("b");
    Names const names = told(watching_);
    EXPECT_TRUE(names.empty() || names == Names{"a"}) << "removed before or after its entry";
    EXPECT_EQ(neighbour_->count(TreflectMessage::tOCNUnsubscribe), 1u);
    EXPECT_EQ(neighbour_->count(TreflectMessage::tODNUnsubscribe), 1u);
}

TEST_F(WaitingRegistrationTest, observerThatIsDestroyedMeanwhileIsNotEntered) {
    begin([&] { observe(watching_, true); });
    create("a");
    discard(watching_);
    end();
    create("b");
}

TEST_F(NotificationTest, observerIsDestroyedAfterTheBrokersWhileItsRegistrationFailsOneByOne) {
    std::atomic<unsigned int> asked{0};
    std::list<RawPeer> silent;
    for (int i = 0; i < 10; ++i)
        silent.emplace_back(group(), [&](RawPeer&, TreflectMessage&) { ++asked; });
    Watcher& watching = watcher();
    std::thread registering([&] { observeDeletions(watching); });
    ASSERT_SOON(asked > 0);
    create("a");
    destroy("a");
    permitted([&] {
        prepareOrbForDeletion();
        discard(watching);
    });
    registering.join();
}

TEST_F(WaitingRegistrationTest, secondObserverWithThePermissionTwiceDoesNotBlockTheFirst) {
    Watcher& second = watcher();
    begin([&] { observe(watching_, true); });
    testsupport::Gate queued;
    std::thread twice([&] {
        TreflectHandlerState const handlerState(true);
        TreflectORB::getRunPermission();
        queued.open();
        observe(second, true);
        TreflectORB::releaseRunPermission();
    });
    queued.wait();
    permitted([] {});  // the second waits for the first
    end();
    twice.join();
    create("a");
    EXPECT_EQ(told(watching_), Names{"a"});
    EXPECT_EQ(told(second), Names{"a"});
}

TEST_F(WaitingRegistrationTest, brokerThatComesUpMeanwhileIsSubscribedAt) {
    begin([&] { observe(watching_, true); });
    Neighbour newcomer(group(), Neighbour::first(1));
    newcomer.awaitHeld();
    newcomer.list({object("far", newcomer)});
    newcomer.answerHeld();
    // A subscription of another class to the whole group takes it from the list of the missed.
    Watcher& other = watcher();
    permitted([&] { thingClass(0x7009).observeCreations(&other, false); });
    end();
    // By the thread that hears of newcomers, which may still be at it.
    EXPECT_TRUE(awaitTold(watching_, {"far"}));
}

// ---- Other processes in trouble ----------------------------------------------------------------

TEST_F(NotificationTest, subscriberThatIsKilledInsideANoticeEndsThePublishersWait) {
    ReflectActor victim, survivor;
    for (ReflectActor* const subscriber : {&victim, &survivor})
        subscriber->watch("w", "creations", "7001");
    victim.ask("answers w hang", "will");
    std::thread publishing([&] { create("a"); });
    victim.await("hangs");
    auto const start = std::chrono::steady_clock::now();
    victim.child().kill();
    publishing.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    create("b");
    EXPECT_EQ(survivor.noticed("w"), "a b ");
    EXPECT_EQ(log_.count("could not find destination"), 0u) << "the dead one is not asked";
    survivor.finish();
}

TEST_F(NotificationTest, brokersMayBeDeletedAndMadeAgainInsideTheNoticeOfAnExistingObject) {
    create("a");
    create("b");
    Watcher& ruthless = creations(true, [] {
        for (int i = 0; i < 3; ++i) {
            prepareOrbForDeletion();
            TreflectORB::getInstance(NSID_UNIT);
        }
    });
    EXPECT_EQ(told(ruthless).size(), 1u) << "it is registered with no broker any more";
    create("c");
    EXPECT_EQ(told(ruthless).size(), 1u);
}

TEST_F(NotificationTest, processEndsWhileItWaitsForANewcomer) {
    ReflectActor subscriber;
    subscriber.watch("w", "creations", "7001");
    RawPeer silent(group());
    ASSERT_FALSE(silent.await(0).empty());
    subscriber.finish();
}

}  // namespace
