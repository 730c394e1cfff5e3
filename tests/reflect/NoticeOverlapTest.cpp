// Notices that overlap each other, registrations, and the arrival of brokers: each observer hears
// of each object once, and in order.
#include <map>
#include <thread>

#include "Arrivals.h"
#include "BrokerTest.h"
#include "NoticeActor.h"
#include "Permitted.h"
#include "RawPeer.h"
#include "Thing.h"

namespace {

constexpr unsigned int kClass = 0x0EE71A9;

/** Another broker, played by hand, which subscribes here and is asked. What it does not answer at
 * once stays for `answerHeld`. */
class Neighbour {
public:
    using Holds = std::function<bool(TreflectMessage const&)>;

    explicit Neighbour(Transport::GroupId group, Holds holds = {}, std::string list = "00000000")
        : holds_(std::move(holds)),
          list_(std::move(list)),
          peer_(group, [this](RawPeer&, TreflectMessage& message) {
              if (message.kind() == TreflectMessage::kRequest && !(holds_ && holds_(message)))
                  answer(message);
          }) {}

    Transport::TerminationId termId() const { return peer_.termId(); }
    TreflectMessage await(TreflectMessage::type_t type, TreflectMessage::kind_t kind) {
        return wire::awaitWhere(peer_, [&](TreflectMessage const& message) {
            return message.type() == type && message.kind() == kind;
        });
    }
    TreflectMessage awaitRequest(TreflectMessage::type_t type) {
        return await(type, TreflectMessage::kRequest);
    }
    void subscribe(Transport::TerminationId broker, TreflectMessage::type_t type) {
        TipprmiStream request(peer_.make(++lastId_, type, TreflectMessage::kRequest), true);
        request << kClass;
        if (type == TreflectMessage::tOCNSubscribe)
            request << false;
        peer_.send(broker, request.msg());
        EXPECT_FALSE(await(type, TreflectMessage::kResponse).empty());
    }
    /** Tells of an object of its own, given as it is encoded, that it has been created. */
    void create(Transport::TerminationId broker, std::string const& object) {
        TipprmiStream request(
            peer_.make(++lastId_, TreflectMessage::tOCN, TreflectMessage::kRequest), true);
        request << kClass;
        wire::write(request, object);
        peer_.send(broker, request.msg());
    }
    /** What it says exists from now on. */
    void setList(std::string list) {
        std::lock_guard<std::mutex> const lock(mutex_);
        list_ = std::move(list);
    }
    void answer(TreflectMessage const& request) {
        std::lock_guard<std::mutex> const lock(mutex_);
        bool const wantsList = request.type() == TreflectMessage::tOCNSubscribe;
        wire::answer(peer_, request, (wantsList ? list_ : "") + "0000000100EE71A9");
    }
    std::size_t count(TreflectMessage::type_t type) {
        std::size_t number = 0;
        for (std::size_t i = 0, all = peer_.count(); i < all; ++i)
            number += peer_.await(i).type() == type;
        return number;
    }

    /** The notices that it got, in their order: a plus for a creation, a minus for a deletion. */
    std::string notices() {
        std::string signs;
        for (std::size_t i = 0, all = peer_.count(); i < all; ++i) {
            TreflectMessage const message = peer_.await(i);
            if (message.kind() == TreflectMessage::kRequest)
                signs += message.type() == TreflectMessage::tOCN   ? "+"
                         : message.type() == TreflectMessage::tODN ? "-"
                                                                   : "";
        }
        return signs;
    }
    std::size_t countOf(TreflectMessage::type_t type, Transport::TerminationId originator) {
        std::size_t number = 0;
        for (std::size_t i = 0, all = peer_.count(); i < all; ++i)
            number += peer_.await(i).type() == type && peer_.await(i).originator() == originator;
        return number;
    }

private:
    Holds const holds_;
    std::mutex mutex_;
    std::string list_;  // guarded by mutex_
    unsigned int lastId_ = 0x100;
    RawPeer peer_;  // ends first
};

class NoticeOverlapTest : public BrokerTest {};

void answer(RawPeer& peer, TreflectMessage const& request) {
    peer.answer(request, [&](TipprmiStream& response) {
        if (request.type() == TreflectMessage::tOCNSubscribe)
            response << 0u;  // nothing exists
        response << 1u << kClass;
    });
}

// The second observer is on its way into the list, waiting for the peer, when an object is created;
// and the first one returns from the notice only when the second one is in the list.
TEST_F(NoticeOverlapTest, creationIsToldOnceToWhoEntersTheListMeanwhile) {
    ArrivalWatch arrivals(orb());
    RawPeer peer(group(), [](RawPeer& self, TreflectMessage& request) {
        if (self.count() != 1)
            answer(self, request);
    });
    ASSERT_TRUE(arrivals.await(peer.termId()));

    TreflectMetaObject& meta = thingClass(kClass);
    testsupport::Gate entered;
    auto first = permitted([&] {
        return std::make_unique<Watcher>("first", [&](auto&, auto&) {
            TreflectReleaseHandlerState const released;
            answer(peer, peer.await(1));
            EXPECT_TRUE(entered.wait());
        });
    });
    auto second = permitted([] { return std::make_unique<Watcher>("second"); });
    permitted([&] { meta.observeCreations(first.get(), false); });
    std::thread registering([&] {
        permitted([&] {
            meta.observeCreations(second.get(), true);
            entered.open();
        });
    });
    EXPECT_FALSE(peer.await(1).empty());
    permitted([&] {
        Thing const thing("thing", kClass);
        for (auto* const observer : {&first, &second})
            EXPECT_EQ((*observer)->told(), std::vector<std::string>{"thing"});
    });
    registering.join();
    permitted([&] {
        for (auto* const observer : {&first, &second}) {
            meta.removeObserver(observer->get());
            observer->reset();
        }
    });
}

/** Says itself when it comes and goes. */
class Lamp final : public TreflectServerObject {
public:
    explicit Lamp(std::string const& name)
        : TreflectServerObject(TipprmiOID(name, NSID_UNIT), nullptr, name) {}
    unsigned int getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override { return {}; }

    void come() const { sendCreationEvent(&thingClass(kClass)); }
    void go() const { sendDeletionEvent(&thingClass(kClass)); }
};

using Names = std::vector<std::string>;

class OverlapTest : public BrokerTest {
protected:
    OverlapTest() : termination_(orb().termId()) {
        permitted([] { thingClass(kClass); });
    }
    ~OverlapTest() override {
        permitted([this] { watchers_.clear(); });
    }

    Watcher& watcher(Watcher::Reaction reaction = {}) {
        return permitted([&]() -> Watcher& {
            watchers_.push_back(std::make_unique<Watcher>("w", std::move(reaction)));
            return *watchers_.back();
        });
    }
    Watcher& creations(bool plusExisting, Watcher::Reaction reaction = {}) {
        Watcher& one = watcher(std::move(reaction));
        observe(one, plusExisting);
        return one;
    }
    Watcher& deletions(Watcher::Reaction reaction = {}) {
        Watcher& one = watcher(std::move(reaction));
        permitted([&] { thingClass(kClass).observeDeletions(&one); });
        return one;
    }
    void observe(Watcher& one, bool plusExisting) {
        permitted([&] { thingClass(kClass).observeCreations(&one, plusExisting); });
    }
    static Names told(Watcher& one) {
        return permitted([&] { return one.told(); });
    }
    static bool awaitTold(Watcher& one, Names const& names) {
        return testsupport::eventually([&] { return told(one) == names; });
    }
    /** A handle on an object of a neighbour, as it is encoded, in a list of its own. */
    std::string listed(std::string const& name, Neighbour const& neighbour) {
        return "00000001" + wire::handle(name, 7, orb().convertId(neighbour.termId()).value());
    }
    static Neighbour::Holds holding(TreflectMessage::type_t type) {
        return [type](TreflectMessage const& message) { return message.type() == type; };
    }

    Transport::TerminationId const termination_;
    std::list<std::unique_ptr<Watcher>> watchers_;  // guarded by the run permission
};

std::string const kActorClass = "EE71A9";

TEST_F(OverlapTest, creationIsToldOnceToWhoRegistersWhileItIsBeingPublishedToOthers) {
    Neighbour slow(group(), holding(TreflectMessage::tOCN));
    slow.subscribe(termination_, TreflectMessage::tOCNSubscribe);
    NoticeActor subscriber;  // is told after the slow one
    subscriber.observe("first", "creations", kActorClass);
    Lamp const lamp("lamp");
    std::thread publishing([&] { permitted([&] { lamp.come(); }); });
    TreflectMessage const notice = slow.awaitRequest(TreflectMessage::tOCN);
    subscriber.observe("second", "existing", kActorClass);
    slow.answer(notice);
    publishing.join();
    EXPECT_EQ(subscriber.told("first"), "lamp ");
    EXPECT_EQ(subscriber.told("second"), "lamp ");
    subscriber.finish();
}

TEST_F(OverlapTest, creationIsToldOnceToWhoSubscribesWhileThePublishersOwnObserverIsTold) {
    testsupport::Gate entered;
    testsupport::Gate released;
    creations(false, [&](auto&, auto&) {
        TreflectReleaseHandlerState const given;
        entered.open();
        EXPECT_TRUE(released.wait());
    });
    NoticeActor subscriber;
    Lamp const lamp("lamp");
    std::thread publishing([&] { permitted([&] { lamp.come(); }); });
    EXPECT_TRUE(entered.wait());
    subscriber.observe("existing", "existing", kActorClass);
    EXPECT_EQ(subscriber.told("existing"), "lamp ");
    released.open();
    publishing.join();
    EXPECT_EQ(subscriber.told("existing"), "lamp ");
    subscriber.finish();
}

TEST_F(OverlapTest, whoRegistersInsideTheNoticeOfACreationIsToldOfItOnce) {
    for (bool const remote : {false, true}) {
        Watcher& second = watcher();
        Watcher& first = watcher();
        first.setReaction([&](auto&, auto&) {
            observe(second, true);
            observe(first, true);
        });
        observe(first, false);
        std::string const name = remote ? "far" : "near";
        if (remote) {
            NoticeActor publisher;
            publisher.create(name, kActorClass);
            EXPECT_TRUE(awaitTold(second, {name}));
            publisher.finish();
        } else {
            Lamp const lamp(name);
            permitted([&] { lamp.come(); });
        }
        EXPECT_EQ(told(first), Names{name});
        EXPECT_EQ(told(second), Names{name});
        permitted([this] { watchers_.clear(); });
    }
}

TEST_F(OverlapTest, whatHasBeenToldAsDeletedDoesNotExistForWhoRegistersThen) {
    Neighbour slow(group(), holding(TreflectMessage::tODN));
    NoticeActor subscriber;
    subscriber.observe("gone", "deletions", kActorClass);
    // Told after the subscriber.
    Neighbour last(group(), holding(TreflectMessage::tODN));
    last.subscribe(termination_, TreflectMessage::tODNSubscribe);
    Watcher& here = watcher();
    deletions([&](auto&, auto&) { observe(here, true); });
    Lamp const lamp("lamp");
    permitted([&] { lamp.come(); });
    std::thread deleting([&] { permitted([&] { lamp.go(); }); });
    TreflectMessage const notice = last.awaitRequest(TreflectMessage::tODN);
    EXPECT_EQ(subscriber.told("gone"), "lamp ");
    subscriber.observe("come", "existing", kActorClass);
    last.answer(notice);
    deleting.join();
    EXPECT_EQ(subscriber.told("come"), "");
    EXPECT_EQ(subscriber.told("gone"), "lamp ");
    EXPECT_EQ(told(here), Names{});
    subscriber.finish();
}

TEST_F(OverlapTest, creationIsToldNoFurtherWhenTheObjectIsDeletedMeanwhile) {
    testsupport::Gate entered;
    testsupport::Gate released;
    Watcher& first = creations(false, [&](std::string const& name, auto&) {
        TreflectReleaseHandlerState const given;
        entered.open();
        EXPECT_TRUE(name != "near" || released.wait());
    });
    Watcher& second = creations(false);
    Watcher& gone = deletions();
    Lamp const near("near");
    std::thread telling([&] { permitted([&] { near.come(); }); });
    EXPECT_TRUE(entered.wait());
    permitted([&] { near.go(); });
    released.open();
    telling.join();
    EXPECT_EQ(told(first), Names{"near"});
    EXPECT_EQ(told(second), Names{});
    EXPECT_EQ(told(gone), Names{"near"});

    Neighbour slow(group(), holding(TreflectMessage::tOCN));
    Neighbour quick(group());
    for (Neighbour* const one : {&slow, &quick})
        for (auto const type : {TreflectMessage::tOCNSubscribe, TreflectMessage::tODNSubscribe})
            one->subscribe(termination_, type);
    Lamp const far("far");
    std::thread publishing([&] { permitted([&] { far.come(); }); });
    TreflectMessage const notice = slow.awaitRequest(TreflectMessage::tOCN);
    permitted([&] { far.go(); });
    slow.answer(notice);
    publishing.join();
    EXPECT_EQ(quick.count(TreflectMessage::tODN), 1u);
    EXPECT_EQ(quick.count(TreflectMessage::tOCN), 0u);
}

// Whoever deletes the object has waited for the permission that is given up for the notice.
TEST_F(OverlapTest, creationLeavesAheadOfTheDeletionThatOverlapsIt) {
    constexpr int kObjects = 300;
    Neighbour neighbour(group());
    neighbour.subscribe(termination_, TreflectMessage::tOCNSubscribe);
    neighbour.subscribe(termination_, TreflectMessage::tODNSubscribe);
    std::atomic<bool> over{false};
    std::thread busy([&over] {
        while (!over) {
        }
    });
    std::string expected;
    for (int i = 0; i < kObjects; ++i) {
        auto lamp = permitted([] { return std::make_unique<Lamp>("lamp"); });
        std::thread deleting;
        permitted([&] {
            deleting = std::thread([&] { permitted([&] { lamp->go(); }); });
            EXPECT_TRUE(testsupport::eventually(
                [] { return TreflectORB::handlerThreads().getPermissionWaiters() > 0; }));
            lamp->come();
        });
        deleting.join();
        permitted([&] { lamp.reset(); });
        expected += "+-";
    }
    over = true;
    busy.join();
    EXPECT_EQ(neighbour.notices(), expected);
}

TEST_F(OverlapTest, objectThatComesAgainIsToldAgain) {
    Watcher& come = creations(true);
    Watcher& gone = deletions();
    Lamp const lamp("lamp");
    for (int i = 0; i < 2; ++i) {
        permitted([&] { lamp.come(); });
        permitted([&] { lamp.go(); });
    }
    EXPECT_EQ(told(come), (Names{"lamp", "lamp"}));
    EXPECT_EQ(told(gone), (Names{"lamp", "lamp"}));
}

// ---- Newcomers ----------------------------------------------------------------------------------

TEST_F(OverlapTest, newcomerThatDoesNotAnswerHoldsUpNobodyElse) {
    Arrivals arrivals;
    orb().registerOrbCreation(&arrivals, false);
    Watcher& first = creations(false);
    std::atomic<int> asked{0};
    Neighbour silent(group(), [&](auto const&) { return asked++ == 0; });
    TreflectMessage const held = silent.awaitRequest(TreflectMessage::tOCNSubscribe);
    EXPECT_FALSE(held.empty());
    Neighbour next(group(), holding(TreflectMessage::tOCNSubscribe));
    next.setList(listed("lamp", next));
    next.answer(next.awaitRequest(TreflectMessage::tOCNSubscribe));
    EXPECT_TRUE(awaitTold(first, {"lamp"}));
    EXPECT_TRUE(testsupport::eventually([&] { return arrivals.have(next.termId()); }));
    EXPECT_FALSE(arrivals.have(silent.termId()));
    silent.answer(held);
    EXPECT_TRUE(testsupport::eventually([&] { return arrivals.have(silent.termId()); }));
    orb().unregisterOrbNotifications(&arrivals);
}

TEST_F(OverlapTest, newcomerThatGoesBeforeItAnswersIsNotToldAsArrivedAfterwards) {
    Arrivals arrivals;
    orb().registerOrbCreation(&arrivals, false);
    orb().registerOrbDeletion(&arrivals);
    creations(false);
    auto silent = std::make_unique<Neighbour>(group(), [](auto const&) { return true; });
    Transport::TerminationId const gone = silent->termId();
    EXPECT_FALSE(silent->awaitRequest(TreflectMessage::tOCNSubscribe).empty());
    silent.reset();
    Neighbour const next(group());
    EXPECT_TRUE(testsupport::eventually([&] { return arrivals.have(next.termId()); }));
    EXPECT_TRUE(testsupport::eventually([&] { return !arrivals.of(gone).empty(); }));
    EXPECT_EQ(arrivals.of(gone), "-");
    orb().unregisterOrbNotifications(&arrivals);
}

TEST_F(OverlapTest, earlierObserverHearsWhatANewcomerHasThoughALaterOneHasAskedIt) {
    for (bool const plusExisting : {true, false}) {
        Watcher& first = creations(false);
        std::atomic<int> asked{0};
        Neighbour newcomer(group(), [&](auto const&) { return asked++ == 0; });
        newcomer.setList(listed("lamp", newcomer));
        TreflectMessage const held = newcomer.awaitRequest(TreflectMessage::tOCNSubscribe);
        EXPECT_FALSE(held.empty());
        Watcher& second = creations(plusExisting);
        EXPECT_EQ(told(second), plusExisting ? Names{"lamp"} : Names{});
        newcomer.answer(held);
        EXPECT_TRUE(awaitTold(first, {"lamp"}));
        EXPECT_TRUE(awaitTold(second, {"lamp"}));
        permitted([this] { watchers_.clear(); });
    }
}

TEST_F(OverlapTest, newcomersObjectThatGoesBeforeItsDeletionIsSubscribedToIsToldAsDeleted) {
    Watcher& come = creations(false);
    Watcher& gone = deletions();
    std::atomic<int> asked{0};
    Neighbour newcomer(group(), [&](auto const&) { return asked++ < 2; });
    std::string const one = wire::handle("one", 7, orb().convertId(newcomer.termId()).value());
    std::string const other = wire::handle("other", 8, orb().convertId(newcomer.termId()).value());
    newcomer.setList("00000002" + one + other);
    newcomer.answer(newcomer.awaitRequest(TreflectMessage::tOCNSubscribe));
    TreflectMessage const subscription = newcomer.awaitRequest(TreflectMessage::tODNSubscribe);
    EXPECT_TRUE(awaitTold(come, {"one", "other"}));
    newcomer.setList("00000001" + other);
    newcomer.answer(subscription);
    EXPECT_TRUE(awaitTold(gone, {"one"}));
}

// ---- Objects that go before the first observer of deletions has been subscribed

/** A neighbour that has been caught up with. */
class GoneEarlyTest : public OverlapTest {
protected:
    std::unique_ptr<Neighbour> arrived(Neighbour::Holds holds = {}) {
        ArrivalWatch arrivals(orb());
        auto one = std::make_unique<Neighbour>(group(), std::move(holds));
        EXPECT_TRUE(arrivals.await(one->termId()));
        return one;
    }
    std::string handle(std::string const& name, unsigned int ioid, Neighbour const& neighbour) {
        return wire::handle(name, ioid, orb().convertId(neighbour.termId()).value());
    }
    /** Is told of the first object, and stays in that notice until it is let go. */
    Watcher::Reaction staying() {
        return [this](auto&, auto&) {
            TreflectReleaseHandlerState const given;
            told_.open();
            EXPECT_TRUE(goOn_.wait());
        };
    }

    testsupport::Gate told_;
    testsupport::Gate goOn_;
};

TEST_F(GoneEarlyTest, whatIsToldAsExistingThoughItHasGoneIsToldAsDeleted) {
    auto const neighbour = arrived();
    std::string const other = handle("other", 9, *neighbour);
    neighbour->setList("00000003" + handle("one", 7, *neighbour) + handle("two", 8, *neighbour) +
                       other);
    Watcher& come = watcher(staying());
    std::thread registering([&] { observe(come, true); });
    EXPECT_TRUE(told_.wait());
    neighbour->setList("00000001" + other);
    Watcher& gone = deletions();
    goOn_.open();
    registering.join();
    EXPECT_EQ(told(come), (Names{"one", "two", "other"}));
    EXPECT_EQ(told(gone), (Names{"one", "two"}));
}

TEST_F(GoneEarlyTest, whatIsCreatedAndGoesWhileDeletionsAreSubscribedToIsToldAsDeleted) {
    Watcher& come = creations(false);
    auto const neighbour = arrived(holding(TreflectMessage::tODNSubscribe));
    Watcher& gone = watcher();
    std::thread registering(
        [&] { permitted([&] { thingClass(kClass).observeDeletions(&gone); }); });
    TreflectMessage const subscription = neighbour->awaitRequest(TreflectMessage::tODNSubscribe);
    std::string const other = handle("other", 8, *neighbour);
    neighbour->create(termination_, handle("one", 7, *neighbour));
    EXPECT_TRUE(awaitTold(come, {"one"}));
    neighbour->create(termination_, other);
    EXPECT_TRUE(awaitTold(come, {"one", "other"}));
    // Unlike one that is removed, it leaves the subscription behind.
    permitted([&] { watchers_.remove_if([&](auto const& each) { return each.get() == &come; }); });
    neighbour->setList("00000001" + other);
    neighbour->answer(subscription);
    registering.join();
    EXPECT_EQ(told(gone), Names{"one"});
}

// As long as the notice has not been answered its sender does not say that the object exists.
TEST_F(GoneEarlyTest, whatGoesDuringItsNoticeIsToldAsDeletedAfterIt) {
    Watcher& come = creations(false, staying());
    auto const neighbour = arrived();
    std::string const other = handle("other", 6, *neighbour);
    neighbour->create(termination_, handle("one", 7, *neighbour));
    EXPECT_TRUE(told_.wait());
    neighbour->create(termination_, other);
    EXPECT_TRUE(awaitTold(come, {"one", "other"}));
    Watcher& gone = deletions();
    EXPECT_EQ(told(gone), Names{});
    neighbour->setList("00000001" + other);
    goOn_.open();
    EXPECT_TRUE(awaitTold(gone, {"one"}));
}

// The thread that observes deletions keeps the permission while they are subscribed to, since it
// has two levels of it.
TEST_F(GoneEarlyTest, whatHasGoneBeforeItsNoticeIsServedIsToldAsDeleted) {
    Watcher& come = creations(false);
    auto const neighbour = arrived();
    Watcher& gone = watcher();
    permitted([&] {
        neighbour->create(termination_, handle("one", 7, *neighbour));
        ASSERT_TRUE(testsupport::eventually(
            [] { return TreflectORB::handlerThreads().getPermissionWaiters() > 0; }));
        TreflectORB::getRunPermission();
        thingClass(kClass).observeDeletions(&gone);
        EXPECT_EQ(TreflectORB::getRunPermissionCount(), 1u) << "waiting gives a level back";
        EXPECT_EQ(come.told(), Names{});
    });
    EXPECT_TRUE(awaitTold(come, {"one"}));
    EXPECT_TRUE(awaitTold(gone, {"one"}));
}

// Who subscribes anew is told of the object as created; until then its broker does not list it.
TEST_F(GoneEarlyTest, whatWasToldBeforeTheSubscriptionsWereCancelledIsNotMissed) {
    auto const neighbour = arrived();
    neighbour->setList(listed("one", *neighbour));
    Watcher& come = watcher(staying());
    std::thread registering([&] { observe(come, true); });
    EXPECT_TRUE(told_.wait());
    permitted([&] { thingClass(kClass).removeObserver(&come); });
    neighbour->setList("00000000");
    creations(false);
    Watcher& gone = deletions();
    goOn_.open();
    registering.join();
    EXPECT_EQ(told(gone), Names{});
}

// To ask is to subscribe.
TEST_F(GoneEarlyTest, nobodyIsAskedOnceMoreWhenCreationsAreObservedNoLonger) {
    Watcher& come = creations(false, staying());
    auto const neighbour = arrived();
    neighbour->create(termination_, handle("one", 7, *neighbour));
    EXPECT_TRUE(told_.wait());
    deletions();
    permitted([&] { thingClass(kClass).removeObserver(&come); });
    std::size_t const asked = neighbour->count(TreflectMessage::tOCNSubscribe);
    goOn_.open();
    EXPECT_FALSE(neighbour->await(TreflectMessage::tOCN, TreflectMessage::kResponse).empty());
    permitted([] {});
    neighbour->subscribe(termination_, TreflectMessage::tODNSubscribe);  // comes behind a question
    EXPECT_EQ(neighbour->count(TreflectMessage::tOCNSubscribe), asked);
}

TEST_F(OverlapTest, brokerOfNodesIsCaughtUpWithByTheBrokerOfNodesOnly) {
    Transport::TerminationId const ours = orb(NSID_NODE).termId();
    Watcher& first = watcher();
    Watcher& second = watcher();
    permitted([&] { orb(NSID_NODE).observeCreations(kClass, first, false); });
    Neighbour node(group(NSID_NODE));
    EXPECT_EQ(node.awaitRequest(TreflectMessage::tOCNSubscribe).originator(), ours);
    EXPECT_TRUE(
        testsupport::eventually([&] { return node.count(TreflectMessage::tOCNSubscribe) == 1; }));
    permitted([&] { orb(NSID_NODE).observeCreations(kClass, second, false); });
    EXPECT_TRUE(testsupport::eventually(
        [&] { return node.countOf(TreflectMessage::tOCNSubscribe, ours) == 2; }));
    EXPECT_EQ(node.countOf(TreflectMessage::tOCNSubscribe, termination_), 0u);
}

}  // namespace
