// Observers of brokers that come and go, and what a broker that goes leaves behind.
#include "BrokerActor.h"
#include "BrokerTest.h"
#include "Probe.h"
#include "RawPeer.h"
#include "Threads.h"
#include "oswrap/Thread.h"
#include "reflect/notices/TreflectOrbObserver.h"

namespace {

using testsupport::statesOfThreads;
using Clock = std::chrono::steady_clock;
using Appear_t = TreflectOrbObserverIf::Appear_t;

/** Notes what it is told, and does what its test wants. */
class Listener : public TreflectOrbObserverIf {
public:
    struct Notice {
        Transport::TerminationId broker;
        Appear_t what;
        unsigned long thread;
    };
    using Reaction = std::function<void(Notice const&)>;

    explicit Listener(Reaction reaction = {}) : reaction_(std::move(reaction)) {}
    ~Listener() { TreflectORB::getInstance(NSID_UNIT)->unregisterOrbNotifications(this); }

    void notify(Transport::TerminationId const& broker, Appear_t const& what) override {
        EXPECT_TRUE(TreflectORB::hasRunPermission());
        notices_.push_back({broker, what, OSWrap::Thread::getCurrentId()});
        if (reaction_)
            reaction_(Notice(notices_.back()));
    }

    std::vector<Notice> notices() {
        return permitted([&] { return notices_; });
    }
    std::vector<Notice> of(Transport::TerminationId broker) {
        std::vector<Notice> some = notices();
        some.erase(std::remove_if(some.begin(), some.end(),
                                  [&](Notice const& notice) { return notice.broker != broker; }),
                   some.end());
        return some;
    }
    bool waitFor(Transport::TerminationId broker, Appear_t what) {
        return testsupport::eventually([&] {
            auto const told = of(broker);
            return std::any_of(told.begin(), told.end(),
                               [what](Notice const& notice) { return notice.what == what; });
        });
    }

private:
    Reaction const reaction_;
    std::vector<Notice> notices_;  // guarded by the run permission
};

class PresenceObserverTest : public BrokerTest {};

// ---- Observers ---------------------------------------------------------------------------------

TEST_F(PresenceObserverTest, eachIsToldWhatItAskedForInTheOrderOfRegistration) {
    std::string order;  // guarded by the run permission
    auto const note = [&](char const* who) {
        return [&order, who](auto const& notice) {
            order += who + std::string(notice.what == Appear_t::kAppear ? "+ " : "- ");
        };
    };
    orb();
    Listener both(note("both"));
    Listener births(note("births"));
    Listener deaths(note("deaths"));
    EXPECT_TRUE(orb().registerOrbCreation(&both, false));
    EXPECT_TRUE(orb().registerOrbDeletion(&deaths));
    EXPECT_TRUE(orb().registerOrbCreation(&births, false));
    EXPECT_TRUE(orb().registerOrbDeletion(&both)) << "keeps its place";
    permitted([&] { order.clear(); });  // of this process's own arrival
    Transport::TerminationId peer;
    {
        RawPeer shortLived(group());
        peer = shortLived.termId();
        ASSERT_TRUE(births.waitFor(peer, Appear_t::kAppear));
    }
    ASSERT_TRUE(deaths.waitFor(peer, Appear_t::kDisappear));
    permitted([&] { EXPECT_EQ(order, "both+ births+ both- deaths- "); });
    EXPECT_NE(both.of(peer)[0].thread, OSWrap::Thread::getCurrentId());
}

TEST_F(PresenceObserverTest, existingTerminationsAreToldAtOnceOnTheCallersThread) {
    RawPeer peer(group());
    RawPeer stranger(orb().getMyGroup(NSID_NODE));
    ASSERT_TRUE(testsupport::eventually(
        [] { return Transport::TransportLayer::instance().getTerminations().size() == 3; }));
    Listener listener;
    EXPECT_TRUE(orb().registerOrbCreation(&listener, true));
    unsigned long const self = OSWrap::Thread::getCurrentId();
    for (Transport::TerminationId const id : {peer.termId(), stranger.termId(), orb().termId()}) {
        auto const notices = listener.of(id);
        ASSERT_FALSE(notices.empty()) << id.value();
        EXPECT_TRUE(std::any_of(notices.begin(), notices.end(),
                                [&](auto const& notice) { return notice.thread == self; }));
    }
}

TEST_F(PresenceObserverTest, noticesAreToldOneAtATimeAndInOrderThoughTheFirstIsSlow) {
    testsupport::Gate entered;
    testsupport::Gate released;
    std::atomic<int> inside{0};
    Listener slow([&](auto const&) {
        EXPECT_EQ(++inside, 1);
        entered.open();
        TreflectReleaseHandlerState const given;
        released.wait();
        --inside;
    });
    orb().registerOrbCreation(&slow, false);
    orb().registerOrbDeletion(&slow);
    std::vector<Transport::TerminationId> ids;
    for (int i = 0; i < 3; ++i) {
        RawPeer const shortLived(group());
        ids.push_back(shortLived.termId());
        ASSERT_TRUE(entered.wait());
        ASSERT_TRUE(testsupport::eventually(
            [&] { return Transport::TransportLayer::instance().exists(ids.back()); }));
    }
    released.open();
    for (Transport::TerminationId const id : ids) {
        ASSERT_TRUE(slow.waitFor(id, Appear_t::kDisappear));
        auto const notices = slow.of(id);
        EXPECT_EQ(notices.back().what, Appear_t::kDisappear);
        EXPECT_LE(notices.size(), 2u) << "an arrival that came too late may be left out";
    }
}

TEST_F(PresenceObserverTest, unregisteringWaitsForANoticeOfAnotherThread) {
    orb();
    for (bool const existing : {false, true}) {
        testsupport::Gate entered;
        testsupport::Gate released;
        std::atomic<bool> over{false};
        auto listener = std::make_unique<Listener>([&](auto const&) {
            TreflectReleaseHandlerState const given;
            entered.open();
            released.wait();
            over = true;
        });
        std::unique_ptr<RawPeer> peer;
        std::thread registering;
        if (existing) {
            registering = std::thread([&] { orb().registerOrbCreation(listener.get(), true); });
        } else {
            orb().registerOrbDeletion(listener.get());
            std::make_unique<RawPeer>(group());
        }
        ASSERT_TRUE(entered.wait());
        std::thread releasing([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            released.open();
        });
        {
            TreflectHandlerState const handlerState(true);
            orb().unregisterOrbNotifications(listener.get());
            EXPECT_TRUE(over);
        }
        if (registering.joinable())
            registering.join();
        std::size_t const count = listener->notices().size();
        RawPeer const later(group());
        EXPECT_EQ(listener->notices().size(), count);
        listener.reset();
        releasing.join();
    }
}

TEST_F(PresenceObserverTest, observerMayUnregisterItselfAndOthersInsideANotice) {
    Listener next;
    Listener first([&](auto const&) {
        orb().unregisterOrbNotifications(&first);
        orb().unregisterOrbNotifications(&next);
    });
    Listener last;
    orb().registerOrbDeletion(&first);
    orb().registerOrbDeletion(&next);
    orb().registerOrbDeletion(&last);
    for (int i = 0; i < 2; ++i)
        std::make_unique<RawPeer>(group());
    ASSERT_TRUE(testsupport::eventually([&] { return last.notices().size() == 2; }));
    EXPECT_EQ(first.notices().size(), 1u);
    EXPECT_EQ(next.notices().size(), 0u);
}

TEST_F(PresenceObserverTest, observerThatThrowsOrKeepsThePermissionDoesNotStopTheOthers) {
    Listener throwing([](auto const&) { throw std::runtime_error("on purpose"); });
    Listener greedy([](auto const&) { TreflectORB::getRunPermission(); });
    Listener last;
    for (Listener* const one : {&throwing, &greedy, &last})
        orb().registerOrbDeletion(one);
    for (int i = 0; i < 2; ++i)
        std::make_unique<RawPeer>(group());
    ASSERT_TRUE(testsupport::eventually([&] { return last.notices().size() == 2; }));
    EXPECT_EQ(log_.count(3, "threw on purpose"), 2u);
}

// ---- The part on its own -----------------------------------------------------------------------

TEST_F(PresenceObserverTest, displayTellsWhoObservesWhat) {
    auto const part = std::make_shared<TreflectOrbObserver>();
    Listener births;
    Listener deaths;
    Listener all;
    part->subscribe(&births, Appear_t::kAppear, false);
    part->subscribe(&deaths, Appear_t::kDisappear, false);
    part->subscribe(&all, Appear_t::kDisappear, false);
    part->subscribe(&all, Appear_t::kAppear, false);
    orb();
    log_.clear();
    part->display();
    auto const line = [](Listener& listener, char const* type) {
        char text[100];
        std::snprintf(text, sizeof text, "   Observer 0x%p registered for %s",
                      static_cast<void*>(static_cast<TreflectOrbObserverIf*>(&listener)), type);
        return std::string(text);
    };
    char head[100];
    std::snprintf(head, sizeof head,
                  "ORB (termId=0x%X) has 3 observer registered:", orb().termId().value());
    EXPECT_EQ(log_.texts(),
              (std::vector<std::string>{head, line(births, "Appear"), line(deaths, "Disappear"),
                                        line(all, "All")}));
    EXPECT_EQ(log_.count(5, ""), 4u);
    EXPECT_EQ(log_.records()[0].source, "REFLECT_OrbObserver");
}

// ---- The end of brokers ------------------------------------------------------------------------

TEST_F(PresenceObserverTest, observerMayDeleteTheBrokersThatTellIt) {
    testsupport::Gate deleted;
    Listener deleting([&](auto const&) {
        prepareOrbForDeletion();
        deleted.open();
    });
    orb().registerOrbDeletion(&deleting);
    std::make_unique<RawPeer>(group());
    ASSERT_TRUE(deleted.wait());
    EXPECT_TRUE(testsupport::eventually([] { return statesOfThreads("OrbObsWorker").empty(); }));
    Listener fresh;
    EXPECT_TRUE(orb().registerOrbCreation(&fresh, true));
    EXPECT_GE(fresh.notices().size(), 1u);
}

TEST_F(PresenceObserverTest, callOfAProcessThatIsKilledFailsAtOnceAndHandlesGoInvalid) {
    BrokerActor server;
    server.publish("lamp");
    TreflectHandlerState const handlerState(true);
    ProbeClient client{oid("lamp")};
    TreflectObject const copy{oid("lamp")};
    ASSERT_TRUE(copy.isConnected());
    Clock::time_point killed;
    std::thread killer([&] {
        EXPECT_TRUE(
            testsupport::eventually([&] { return server.ask("holding lamp", "holding") == "1"; }));
        killed = Clock::now();
        server.child().kill();
    });
    ProbeClient::Answer const answer = client.call(kHold);
    EXPECT_LT(Clock::now() - killed, std::chrono::seconds(2));
    killer.join();
    EXPECT_FALSE(answer.succeeded);
    EXPECT_EQ(answer.exceptionCode, 0u);
    EXPECT_TRUE(log_.contains("aborted (Detection Rem.Disc.=true"));
    EXPECT_FALSE(client.isConnected());
    EXPECT_FALSE(copy.isConnected());
}

}  // namespace
