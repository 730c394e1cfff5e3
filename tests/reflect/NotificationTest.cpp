// Observers of creations and deletions, here and in other processes, and what gets in their way.
#include <thread>

#include "Arrivals.h"
#include "BrokerTest.h"
#include "NoticeActor.h"
#include "Permitted.h"
#include "RawPeer.h"
#include "Thing.h"

namespace {

constexpr unsigned int kLampClass = 0x7001;
using Names = std::vector<std::string>;

class NotificationTest : public BrokerTest {
protected:
    NotificationTest() {
        orb();
        permitted([] { thingClass(kLampClass); });
    }
    ~NotificationTest() override {
        permitted([this] {
            things_.clear();
            watchers_.clear();
        });
    }

    TreflectMetaObject& lamps() { return thingClass(kLampClass); }
    Watcher& watcher(std::string const& name, Watcher::Reaction reaction = {}) {
        return permitted([&]() -> Watcher& {
            watchers_.push_back(std::make_unique<Watcher>(name, std::move(reaction)));
            return *watchers_.back();
        });
    }
    void observeCreations(Watcher& watcher, bool plusExisting = false) {
        permitted([&] { EXPECT_TRUE(lamps().observeCreations(&watcher, plusExisting)); });
    }
    void observeDeletions(Watcher& watcher) {
        permitted([&] { EXPECT_TRUE(lamps().observeDeletions(&watcher)); });
    }
    void remove(Watcher& watcher) {
        permitted([&] { lamps().removeObserver(&watcher); });
    }
    void discard(Watcher& watcher) {
        permitted([&] {
            watchers_.remove_if([&](auto const& owned) { return owned.get() == &watcher; });
        });
    }
    void create(std::string const& name) {
        permitted([&] { things_[name] = std::make_unique<Thing>(name, kLampClass); });
    }
    void destroy(std::string const& name) {
        permitted([&] {
            std::unique_ptr<Thing> gone = std::move(things_[name]);
            things_.erase(name);
            gone.reset();
        });
    }
    Names told(Watcher& watcher) {
        return permitted([&] { return watcher.told(); });
    }
    /** Answers of a peer that serves the class and has no object of it. */
    static void serve(RawPeer& peer, TreflectMessage const& request) {
        peer.answer(request, [&](TipprmiStream& response) {
            if (request.type() == TreflectMessage::tOCNSubscribe)
                response << 0u;
            response << 1u << kLampClass;
        });
    }

    std::list<std::unique_ptr<Watcher>> watchers_;          // guarded by the run permission
    std::map<std::string, std::unique_ptr<Thing>> things_;  // likewise
};

// ---- Who is told of what -----------------------------------------------------------------------

TEST_F(NotificationTest, objectsOfOtherProcessesAreToldOfWithTheirHandle) {
    NoticeActor publisher;
    publisher.know("7001");
    std::vector<unsigned int> ioids;
    Names answers;
    Watcher& created = watcher("created", [&](auto const&, TreflectObject const& source) {
        ioids.push_back(source.getStub_()->getInternalOID());
        answers.push_back(source.getRelName());  // asks the process that is waiting for us
    });
    Watcher& deleted = watcher("deleted", [&](auto const&, TreflectObject const& source) {
        ioids.push_back(source.getStub_()->getInternalOID());
    });
    observeCreations(created);
    observeDeletions(deleted);
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

TEST_F(NotificationTest, existingObjectsOfAllProcessesAreToldOnce) {
    NoticeActor first;
    NoticeActor second;
    first.create("a", "7001");
    second.create("b", "7001");
    second.create("c", "7001");
    second.create("other", "7002");
    create("d");
    Watcher& all = watcher("all");
    Watcher& fresh = watcher("fresh");
    for (int i = 0; i < 2; ++i)
        observeCreations(fresh);
    observeCreations(all, true);
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

TEST_F(NotificationTest, listMayChangeInsideEveryNotice) {
    Watcher& removed = watcher("removed");
    Watcher& added = watcher("added");
    Watcher& destroyed = watcher("destroyed");
    Watcher& changing = watcher("changing");
    changing.setReaction([&](std::string const& name, auto const&) {
        if (name != "a")
            return;
        remove(removed);
        discard(destroyed);
        remove(changing);
        observeCreations(added);
        observeCreations(changing);
    });
    for (Watcher* const one : {&changing, &removed, &destroyed})
        observeCreations(*one);
    create("a");
    EXPECT_EQ(told(changing), Names{"a"}) << "back at the end, and told already";
    EXPECT_EQ(told(removed), Names{});
    EXPECT_EQ(told(added), Names{"a"});
    create("b");
    EXPECT_EQ(told(changing), (Names{"a", "b"}));
    EXPECT_EQ(told(added), (Names{"a", "b"}));
}

TEST_F(NotificationTest, observerThatThrowsOrKeepsThePermissionDoesNotStopTheOthers) {
    Watcher& throwing = watcher("throwing", [](auto&, auto&) { throw std::runtime_error("no"); });
    Watcher& greedy = watcher("greedy", [](auto&, auto&) { TreflectORB::getRunPermission(); });
    Watcher& careless =
        watcher("careless", [](auto&, auto&) { TreflectORB::leaveHandlerState(true); });
    Watcher& last = watcher("last");
    for (Watcher* const one : {&throwing, &careless, &greedy, &last})
        observeCreations(*one);
    permitted([this] {
        create("a");
        EXPECT_EQ(TreflectORB::getRunPermissionCount(), 1u);
    });
    EXPECT_FALSE(TreflectORB::isHandlerThread());
    EXPECT_EQ(told(last), Names{"a"});
    EXPECT_TRUE(log_.contains("threw no"));
}

// ---- What happens while a registration waits ---------------------------------------------------

/** An observer that registers on a thread of its own, and waits for a peer that does not answer
 * before it is told to. */
class WaitingRegistrationTest : public NotificationTest {
protected:
    WaitingRegistrationTest() { EXPECT_TRUE(arrivals_.await(peer_.termId())); }
    ~WaitingRegistrationTest() override {
        if (registering_.joinable())
            registering_.join();
    }
    void begin(std::function<void()> const& registration) {
        registering_ = std::thread(registration);
        ASSERT_FALSE(peer_.await(0).empty());
    }
    void end() {
        serve(peer_, peer_.await(0));
        registering_.join();
    }

    ArrivalWatch arrivals_{orb()};
    RawPeer peer_{group(), [this](RawPeer& self, TreflectMessage& request) {
                      if (count_++ > 0 && request.kind() == TreflectMessage::kRequest)
                          serve(self, request);
                  }};
    std::atomic<int> count_{0};
    std::thread registering_;
};

TEST_F(WaitingRegistrationTest, noticesAreKeptForIt) {
    create("old");
    Watcher& watching = watcher("watching");
    begin([&] { observeCreations(watching, true); });
    create("new");
    create("shortLived");
    destroy("shortLived");
    EXPECT_EQ(told(watching), Names{"old"});
    end();
    EXPECT_EQ(told(watching), (Names{"old", "new"}));
    create("next");
    EXPECT_EQ(told(watching), (Names{"old", "new", "next"}));
}

TEST_F(WaitingRegistrationTest, deletionsAreKeptForIt) {
    for (std::string const name : {"a", "b"})
        create(name);
    Watcher& watching = watcher("watching");
    begin([&] { observeDeletions(watching); });
    for (std::string const name : {"a", "b"})
        destroy(name);
    create("a");
    destroy("a");
    end();
    EXPECT_EQ(told(watching), (Names{"a", "b", "a"}));
}

TEST_F(WaitingRegistrationTest, observerThatIsRemovedMeanwhileIsNotEntered) {
    Watcher& watching = watcher("watching");
    begin([&] { observeCreations(watching, true); });
    create("a");
    std::thread removing([&] { remove(watching); });  // cancels when the subscription is through
    end();
    removing.join();
    create("b");
    Names const names = told(watching);
    EXPECT_TRUE(names.empty() || names == Names{"a"}) << "removed before or after its entry";
    EXPECT_EQ(peer_.await(1).type(), TreflectMessage::tOCNUnsubscribe);
    EXPECT_EQ(peer_.await(2).type(), TreflectMessage::tODNUnsubscribe);
}

TEST_F(WaitingRegistrationTest, observerThatIsDestroyedMeanwhileIsNotEntered) {
    Watcher& watching = watcher("watching");
    begin([&] { observeCreations(watching, true); });
    create("a");
    discard(watching);
    end();
    create("b");
}

TEST_F(NotificationTest, observerIsDestroyedAfterTheBrokersWhileItsRegistrationFailsOneByOne) {
    std::atomic<unsigned int> asked{0};
    std::list<RawPeer> silent;
    for (int i = 0; i < 10; ++i)
        silent.emplace_back(group(), [&](RawPeer&, TreflectMessage&) { ++asked; });
    Watcher& watching = watcher("watching");
    std::thread registering([&] { observeDeletions(watching); });
    ASSERT_TRUE(testsupport::eventually([&] { return asked > 0; }));
    create("a");
    destroy("a");
    permitted([&] {
        prepareOrbForDeletion();
        discard(watching);
    });
    registering.join();
}

TEST_F(WaitingRegistrationTest, secondObserverWithThePermissionTwiceDoesNotBlockTheFirst) {
    Watcher& first = watcher("first");
    Watcher& second = watcher("second");
    begin([&] { observeCreations(first, true); });
    testsupport::Gate queued;
    std::thread twice([&] {
        TreflectHandlerState const handlerState(true);
        TreflectORB::getRunPermission();
        queued.open();
        observeCreations(second, true);
        TreflectORB::releaseRunPermission();
    });
    queued.wait();
    permitted([] {});  // the second waits for the first
    end();
    twice.join();
    create("a");
    EXPECT_EQ(told(first), Names{"a"});
    EXPECT_EQ(told(second), Names{"a"});
}

TEST_F(WaitingRegistrationTest, brokerThatComesUpMeanwhileIsSubscribedAt) {
    Watcher& watching = watcher("watching");
    begin([&] { observeCreations(watching, true); });
    RawPeer newcomer(group(), [](RawPeer& self, TreflectMessage& request) {
        self.answer(request, [&](TipprmiStream& s) {
            s << 1u << TipprmiOID("far", NSID_UNIT) << 7u << 0x01010077u << 1u << kLampClass;
        });
    });
    EXPECT_EQ(newcomer.await(0).type(), TreflectMessage::tOCNSubscribe);
    // A subscription of another class to the whole group takes it from the list of the missed.
    Watcher& other = watcher("other");
    permitted([&] { thingClass(0x7009).observeCreations(&other, false); });
    end();
    // By the thread that hears of newcomers, which may still be at it.
    EXPECT_TRUE(testsupport::eventually([&] { return told(watching) == Names{"far"}; }));
}

// ---- Other processes in trouble ----------------------------------------------------------------

TEST_F(NotificationTest, subscriberThatIsKilledInsideANoticeEndsThePublishersWait) {
    NoticeActor victim;
    NoticeActor survivor;
    for (NoticeActor* const subscriber : {&victim, &survivor})
        subscriber->observe("w", "creations", "7001");
    victim.ask("hold w", "prepared");
    std::thread publishing([&] { create("a"); });
    victim.await("holding");
    auto const start = std::chrono::steady_clock::now();
    victim.child().kill();
    publishing.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    create("b");
    EXPECT_EQ(survivor.told("w"), "a b ");
    EXPECT_EQ(log_.count("could not find destination"), 0u) << "the dead one is not asked";
    survivor.finish();
}

TEST_F(NotificationTest, brokersMayBeDeletedAndMadeAgainInsideTheNoticeOfAnExistingObject) {
    create("a");
    create("b");
    Watcher& ruthless = watcher("ruthless", [](auto&, auto&) {
        for (int i = 0; i < 3; ++i) {
            prepareOrbForDeletion();
            TreflectORB::getInstance(NSID_UNIT);
        }
    });
    observeCreations(ruthless, true);
    EXPECT_EQ(told(ruthless).size(), 1u) << "it is registered with no broker any more";
    create("c");
    EXPECT_EQ(told(ruthless).size(), 1u);
}

TEST_F(NotificationTest, processEndsWhileItWaitsForANewcomer) {
    NoticeActor subscriber;
    subscriber.observe("w", "creations", "7001");
    RawPeer silent(group());
    ASSERT_FALSE(silent.await(0).empty());
    subscriber.finish();
}

}  // namespace
