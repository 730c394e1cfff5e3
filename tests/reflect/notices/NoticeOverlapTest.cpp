// Notices that overlap each other, registrations and arrivals of brokers: each observer hears of
// each object once, and in order.
#include "NoticeTest.h"

namespace {

constexpr auto kCreated = TreflectMessage::tOCN;
constexpr auto kDeleted = TreflectMessage::tODN;
constexpr auto kSubscribeCreations = TreflectMessage::tOCNSubscribe;
constexpr auto kSubscribeDeletions = TreflectMessage::tODNSubscribe;

class NoticeOverlapTest : public NoticeTest {
protected:
    /** Stays in the notice of the first object that is told until it is let go. */
    Watcher::Reaction staying() {
        return [this] {
            TreflectReleaseHandlerState const given;
            told_.open();
            EXPECT_TRUE(goOn_.wait());
        };
    }

    testsupport::Gate told_;
    testsupport::Gate goOn_;
};

// The second observer is on its way into the list, waiting for the neighbour, when an object is
// created; and the first one returns from the notice only when the second one is in the list.
TEST_F(NoticeOverlapTest, creationIsToldOnceToWhoEntersTheListMeanwhile) {
    auto const slow = arrived([asked = 0](auto&) mutable { return asked++ == 1; });
    Watcher& second = watcher();
    Watcher& first = creations(false, [&] {
        TreflectReleaseHandlerState const released;
        slow->answerHeld();
        EXPECT_TRUE(goOn_.wait());
    });
    std::thread registering([&] {
        observe(second, true);
        goOn_.open();
    });
    slow->awaitHeld();
    create("lamp");
    EXPECT_EQ(told(first), Names{"lamp"});
    EXPECT_EQ(told(second), Names{"lamp"});
    registering.join();
}

// While the group is being asked for it, the only observer ends, and then there is another one.
TEST_F(NoticeOverlapTest, endOfAnObserverDoesNotSilenceWhoRegistersMeanwhile) {
    auto const slow = arrived(Neighbour::each(kSubscribeCreations));
    Watcher& ending = watcher();
    Watcher& coming = watcher();
    std::thread registering([&] { observe(ending); });
    slow->awaitHeld();
    // Each of them has the permission until it waits for the neighbour's answer.
    auto const untilItWaits = [](std::function<void()> const& work) {
        auto const begun = std::make_shared<testsupport::Gate>();
        std::thread thread([work, begun] {
            permitted([&] {
                begun->open();
                work();
            });
        });
        EXPECT_TRUE(begun->wait());
        permitted([] {});
        return thread;
    };
    std::thread ends = untilItWaits([&] { lamps().endCreations(&ending); });
    std::thread comes = untilItWaits([&] { observeDeletions(coming); });
    slow->answerHeld();
    for (std::thread* const one : {&registering, &ends, &comes})
        one->join();
    EXPECT_EQ(slow->count(kSubscribeDeletions), 1u);
    EXPECT_EQ(slow->count(TreflectMessage::tOCNUnsubscribe), 0u);
    EXPECT_EQ(slow->count(TreflectMessage::tODNUnsubscribe), 0u);
}

TEST_F(NoticeOverlapTest, creationIsToldOnceToWhoRegistersWhileItIsBeingPublishedToOthers) {
    Neighbour slow(group(), Neighbour::each(kCreated));
    slow.subscribe(broker_, kSubscribeCreations);
    ReflectActor subscriber;  // is told after the slow one
    subscriber.watch("first", "creations", "7001");
    std::thread publishing([&] { create("lamp"); });
    slow.awaitHeld();
    subscriber.watch("second", "existing", "7001");
    slow.answerHeld();
    publishing.join();
    EXPECT_EQ(subscriber.noticed("first"), "lamp ");
    EXPECT_EQ(subscriber.noticed("second"), "lamp ");
    subscriber.finish();
}

TEST_F(NoticeOverlapTest, creationIsToldOnceToWhoSubscribesWhileThePublishersOwnObserverIsTold) {
    creations(false, staying());
    ReflectActor subscriber;
    std::thread publishing([&] { create("lamp"); });
    EXPECT_TRUE(told_.wait());
    subscriber.watch("existing", "existing", "7001");
    EXPECT_EQ(subscriber.noticed("existing"), "lamp ");
    goOn_.open();
    publishing.join();
    EXPECT_EQ(subscriber.noticed("existing"), "lamp ");
    subscriber.finish();
}

TEST_F(NoticeOverlapTest, whoRegistersInsideTheNoticeOfACreationIsToldOfItOnce) {
    for (bool const remote : {false, true}) {
        Watcher& second = watcher();
        Watcher& first = creations();
        permitted([&] {
            first.react = [&] {
                observe(second, true);
                observe(first, true);
            };
        });
        std::string const name = remote ? "far" : "near";
        if (remote) {
            ReflectActor publisher;
            publisher.create(name, "7001");
            EXPECT_TRUE(awaitTold(second, {name}));
            publisher.finish();
        } else {
            create(name);
        }
        EXPECT_EQ(told(first), Names{name});
        EXPECT_EQ(told(second), Names{name});
        permitted([this] {
            things_.clear();
            watchers_.clear();
        });
    }
}

TEST_F(NoticeOverlapTest, whatHasBeenToldAsDeletedDoesNotExistForWhoRegistersThen) {
    Neighbour slow(group(), Neighbour::each(kDeleted));
    ReflectActor subscriber;
    subscriber.watch("gone", "deletions", "7001");
    // Told after the subscriber.
    Neighbour last(group(), Neighbour::each(kDeleted));
    last.subscribe(broker_, kSubscribeDeletions);
    Watcher& here = watcher();
    deletions([&] { observe(here, true); });
    create("lamp");
    std::thread deleting([&] { destroy("lamp"); });
    last.awaitHeld();
    EXPECT_EQ(subscriber.noticed("gone"), "lamp ");
    subscriber.watch("come", "existing", "7001");
    last.answerHeld();
    deleting.join();
    EXPECT_EQ(subscriber.noticed("come"), "");
    EXPECT_EQ(subscriber.noticed("gone"), "lamp ");
    EXPECT_EQ(told(here), Names{});
    subscriber.finish();
}

TEST_F(NoticeOverlapTest, creationIsToldNoFurtherWhenTheObjectIsDeletedMeanwhile) {
    Watcher& first = creations(false, staying());
    Watcher& second = creations();
    Watcher& gone = deletions();
    make("near");
    std::thread telling([&] { come("near"); });
    EXPECT_TRUE(told_.wait());
    go("near");
    goOn_.open();
    telling.join();
    EXPECT_EQ(told(first), Names{"near"});
    EXPECT_EQ(told(second), Names{});
    EXPECT_EQ(told(gone), Names{"near"});

    Neighbour slow(group(), Neighbour::each(kCreated));
    Neighbour quick(group());
    for (Neighbour* const one : {&slow, &quick})
        for (auto const type : {kSubscribeCreations, kSubscribeDeletions})
            one->subscribe(broker_, type);
    make("far");
    std::thread publishing([&] { come("far"); });
    slow.awaitHeld();
    go("far");
    slow.answerHeld();
    publishing.join();
    EXPECT_EQ(quick.notices(), "-");
}

// Whoever deletes the object has waited for the permission that is given up for the notice.
TEST_F(NoticeOverlapTest, creationLeavesAheadOfTheDeletionThatOverlapsIt) {
    constexpr int kObjects = 300;
    Neighbour neighbour(group());
    neighbour.subscribe(broker_, kSubscribeCreations);
    neighbour.subscribe(broker_, kSubscribeDeletions);
    std::atomic<bool> over{false};
    std::thread busy([&over] {
        while (!over) {
        }
    });
    std::string expected;
    for (int i = 0; i < kObjects; ++i) {
        make("lamp");
        std::thread deleting;
        permitted([&] {
            deleting = std::thread([&] { go("lamp"); });
            EXPECT_TRUE(queueGrowsTo(1));
            come("lamp");
        });
        deleting.join();
        expected += "+-";
    }
    over = true;
    busy.join();
    EXPECT_EQ(neighbour.notices(), expected);
}

TEST_F(NoticeOverlapTest, objectThatComesAgainIsToldAgain) {
    Watcher& created = creations(true);
    Watcher& gone = deletions();
    make("lamp");
    for (int i = 0; i < 2; ++i) {
        come("lamp");
        go("lamp");
    }
    EXPECT_EQ(told(created), (Names{"lamp", "lamp"}));
    EXPECT_EQ(told(gone), (Names{"lamp", "lamp"}));
}

// ---- Newcomers ----------------------------------------------------------------------------------

TEST_F(NoticeOverlapTest, newcomerThatDoesNotAnswerHoldsUpNobodyElse) {
    ArrivalWatch arrivals(orb());
    Watcher& first = creations();
    Neighbour silent(group(), Neighbour::first(1));
    silent.awaitHeld();
    Neighbour next(group(), Neighbour::each(kSubscribeCreations));
    next.list({object("lamp", next)});
    next.answerHeld();
    EXPECT_TRUE(awaitTold(first, {"lamp"}));
    EXPECT_TRUE(arrivals.await(next.termId()));
    EXPECT_EQ(arrivals.signs(silent.termId()), "");
    silent.answerHeld();
    EXPECT_TRUE(arrivals.await(silent.termId()));
}

TEST_F(NoticeOverlapTest, newcomerThatGoesBeforeItAnswersIsNotToldAsArrivedAfterwards) {
    ArrivalWatch arrivals(orb());
    orb().registerOrbDeletion(&arrivals);
    creations();
    auto silent = std::make_unique<Neighbour>(group(), [](auto const&) { return true; });
    Transport::TerminationId const gone = silent->termId();
    silent->awaitHeld();
    silent.reset();
    Neighbour const next(group());
    EXPECT_TRUE(arrivals.await(next.termId()));
    EXPECT_TRUE(arrivals.waitFor(gone, ArrivalWatch::kDisappear));
    EXPECT_EQ(arrivals.signs(gone), "-");
}

TEST_F(NoticeOverlapTest, earlierObserverHearsWhatANewcomerHasThoughALaterOneHasAskedIt) {
    for (bool const plusExisting : {true, false}) {
        Watcher& first = creations();
        Neighbour newcomer(group(), Neighbour::first(1));
        newcomer.list({object("lamp", newcomer)});
        newcomer.awaitHeld();
        Watcher& second = creations(plusExisting);
        EXPECT_EQ(told(second), plusExisting ? Names{"lamp"} : Names{});
        newcomer.answerHeld();
        EXPECT_TRUE(awaitTold(first, {"lamp"}));
        EXPECT_TRUE(awaitTold(second, {"lamp"}));
        permitted([this] { watchers_.clear(); });
    }
}

TEST_F(NoticeOverlapTest, newcomersObjectThatGoesBeforeItsDeletionIsSubscribedToIsToldAsDeleted) {
    Watcher& created = creations();
    Watcher& gone = deletions();
    Neighbour newcomer(group(), Neighbour::first(2));
    std::string const other = object("other", newcomer, 8);
    newcomer.list({object("one", newcomer), other});
    newcomer.answerHeld();
    EXPECT_TRUE(awaitTold(created, {"one", "other"}));
    newcomer.list({other});
    newcomer.answerHeld();
    EXPECT_TRUE(awaitTold(gone, {"one"}));
}

TEST_F(NoticeOverlapTest, brokerOfNodesIsCaughtUpWithByTheBrokerOfNodesOnly) {
    TreflectORB& nodes = orb(NSID_NODE);
    Watcher& first = watcher();
    Watcher& second = watcher();
    permitted([&] { nodes.observeCreations(kLampClass, first, false); });
    Neighbour node(group(NSID_NODE));
    auto const subscribed = [&](std::size_t times) {
        return testsupport::eventually(
            [&] { return node.count(kSubscribeCreations, nodes.termId()) == times; });
    };
    EXPECT_TRUE(subscribed(1));
    permitted([&] { nodes.observeCreations(kLampClass, second, false); });
    EXPECT_TRUE(subscribed(2));
    EXPECT_EQ(node.count(kSubscribeCreations, broker_), 0u);
}

// ---- Objects that go before the first observer of deletions has been subscribed
// ------------------

TEST_F(NoticeOverlapTest, whatIsToldAsExistingThoughItHasGoneIsToldAsDeleted) {
    auto const neighbour = arrived();
    std::string const other = object("other", *neighbour, 9);
    neighbour->list({object("one", *neighbour), object("two", *neighbour, 8), other});
    Watcher& created = watcher(staying());
    std::thread registering([&] { observe(created, true); });
    EXPECT_TRUE(told_.wait());
    neighbour->list({other});
    Watcher& gone = deletions();
    goOn_.open();
    registering.join();
    EXPECT_EQ(told(created), (Names{"one", "two", "other"}));
    EXPECT_EQ(told(gone), (Names{"one", "two"}));
}

TEST_F(NoticeOverlapTest, whatIsCreatedAndGoesWhileDeletionsAreSubscribedToIsToldAsDeleted) {
    Watcher& created = creations();
    auto const neighbour = arrived(Neighbour::each(kSubscribeDeletions));
    Watcher& gone = watcher();
    std::thread registering([&] { observeDeletions(gone); });
    neighbour->awaitHeld();
    std::string const other = object("other", *neighbour, 8);
    neighbour->create(broker_, object("one", *neighbour));
    EXPECT_TRUE(awaitTold(created, {"one"}));
    neighbour->create(broker_, other);
    EXPECT_TRUE(awaitTold(created, {"one", "other"}));
    discard(created);  // unlike one that is removed, it leaves the subscription behind
    neighbour->list({other});
    neighbour->answerHeld();
    registering.join();
    EXPECT_EQ(told(gone), Names{"one"});
}

// As long as the notice has not been answered its sender does not say that the object exists.
TEST_F(NoticeOverlapTest, whatGoesDuringItsNoticeIsToldAsDeletedAfterIt) {
    Watcher& created = creations(false, staying());
    auto const neighbour = arrived();
    std::string const other = object("other", *neighbour, 6);
    neighbour->create(broker_, object("one", *neighbour));
    EXPECT_TRUE(told_.wait());
    neighbour->create(broker_, other);
    EXPECT_TRUE(awaitTold(created, {"one", "other"}));
    Watcher& gone = deletions();
    EXPECT_EQ(told(gone), Names{});
    neighbour->list({other});
    goOn_.open();
    EXPECT_TRUE(awaitTold(gone, {"one"}));
}

// The thread that observes deletions keeps the permission while they are subscribed to, since it
// has two levels of it.
TEST_F(NoticeOverlapTest, whatHasGoneBeforeItsNoticeIsServedIsToldAsDeleted) {
    Watcher& created = creations();
    auto const neighbour = arrived();
    Watcher& gone = watcher();
    permitted([&] {
        neighbour->create(broker_, object("one", *neighbour));
        ASSERT_TRUE(queueGrowsTo(1));
        TreflectORB::getRunPermission();
        observeDeletions(gone);
        EXPECT_EQ(TreflectORB::getRunPermissionCount(), 1u) << "waiting gives a level back";
        EXPECT_EQ(told(created), Names{});
    });
    EXPECT_TRUE(awaitTold(created, {"one"}));
    EXPECT_TRUE(awaitTold(gone, {"one"}));
}

// Who subscribes anew is told of the object as created; until then its broker does not list it.
TEST_F(NoticeOverlapTest, whatWasToldBeforeTheSubscriptionsWereCancelledIsNotMissed) {
    auto const neighbour = arrived();
    neighbour->list({object("one", *neighbour)});
    Watcher& created = watcher(staying());
    std::thread registering([&] { observe(created, true); });
    EXPECT_TRUE(told_.wait());
    remove(created);
    neighbour->list({});
    creations();
    Watcher& gone = deletions();
    goOn_.open();
    registering.join();
    EXPECT_EQ(told(gone), Names{});
}

// To ask is to subscribe.
TEST_F(NoticeOverlapTest, nobodyIsAskedOnceMoreWhenCreationsAreObservedNoLonger) {
    Watcher& created = creations(false, staying());
    auto const neighbour = arrived();
    neighbour->create(broker_, object("one", *neighbour));
    EXPECT_TRUE(told_.wait());
    deletions();
    remove(created);
    std::size_t const asked = neighbour->count(kSubscribeCreations);
    goOn_.open();
    EXPECT_FALSE(neighbour->await(kCreated, TreflectMessage::kResponse).empty());
    permitted([] {});
    neighbour->subscribe(broker_, kSubscribeDeletions);  // comes behind a question
    EXPECT_EQ(neighbour->count(kSubscribeCreations), asked);
}

}  // namespace
