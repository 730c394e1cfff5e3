// Observers of brokers that come and go, and what a broker that goes leaves behind.
#include "BrokerListener.h"
#include "BrokerTest.h"
#include "RawPeer.h"
#include "Threads.h"
#include "reflect/notices/TreflectOrbObserver.h"

namespace {

using testsupport::statesOfThreads;
using Appear_t = TreflectOrbObserverIf::Appear_t;

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
    BrokerListener both(note("both"));
    BrokerListener births(note("births"));
    BrokerListener deaths(note("deaths"));
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
    ASSERT_SOON(Transport::TransportLayer::instance().getTerminations().size() == 3);
    BrokerListener listener;
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
    BrokerListener slow([&](auto const&) {
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
        ASSERT_SOON(Transport::TransportLayer::instance().exists(ids.back()));
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
        std::atomic<bool> done{false};
        auto listener = std::make_unique<BrokerListener>([&](auto const&) {
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
        std::thread unregistering([&] {
            pthread_setname_np(pthread_self(), "unregisters");
            TreflectHandlerState const handlerState(true);
            orb().unregisterOrbNotifications(listener.get());
            EXPECT_TRUE(over);
            done = true;
        });
        EXPECT_SOON(done || statesOfThreads("unregisters") == "S");
        released.open();
        unregistering.join();
        if (registering.joinable())
            registering.join();
        std::size_t const count = listener->notices().size();
        RawPeer const later(group());
        EXPECT_EQ(listener->notices().size(), count);
        listener.reset();
    }
}

TEST_F(PresenceObserverTest, observerMayUnregisterItselfAndOthersInsideANotice) {
    BrokerListener next;
    BrokerListener first([&](auto const&) {
        orb().unregisterOrbNotifications(&first);
        orb().unregisterOrbNotifications(&next);
    });
    BrokerListener last;
    orb().registerOrbDeletion(&first);
    orb().registerOrbDeletion(&next);
    orb().registerOrbDeletion(&last);
    for (int i = 0; i < 2; ++i)
        std::make_unique<RawPeer>(group());
    ASSERT_SOON(last.notices().size() == 2);
    EXPECT_EQ(first.notices().size(), 1u);
    EXPECT_EQ(next.notices().size(), 0u);
}

TEST_F(PresenceObserverTest, observerThatThrowsOrKeepsThePermissionDoesNotStopTheOthers) {
    BrokerListener throwing([](auto const&) { throw std::runtime_error("on purpose"); });
    BrokerListener greedy([](auto const&) { TreflectORB::getRunPermission(); });
    BrokerListener last;
    for (BrokerListener* const one : {&throwing, &greedy, &last})
        orb().registerOrbDeletion(one);
    for (int i = 0; i < 2; ++i)
        std::make_unique<RawPeer>(group());
    ASSERT_SOON(last.notices().size() == 2);
    EXPECT_EQ(log_.count(3, "threw on purpose"), 2u);
}

// ---- The part on its own -----------------------------------------------------------------------

TEST_F(PresenceObserverTest, displayTellsWhoObservesWhat) {
    auto const part = std::make_shared<TreflectOrbObserver>();
    BrokerListener births;
    BrokerListener deaths;
    BrokerListener all;
    part->subscribe(&births, Appear_t::kAppear, false);
    part->subscribe(&deaths, Appear_t::kDisappear, false);
    part->subscribe(&all, Appear_t::kDisappear, false);
    part->subscribe(&all, Appear_t::kAppear, false);
    orb();
    log_.clear();
    part->display();
    auto const line = [](BrokerListener& listener, char const* type) {
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
    BrokerListener deleting([&](auto const&) {
        prepareOrbForDeletion();
        deleted.open();
    });
    orb().registerOrbDeletion(&deleting);
    std::make_unique<RawPeer>(group());
    ASSERT_TRUE(deleted.wait());
    EXPECT_SOON(statesOfThreads("OrbObsWorker").empty());
    BrokerListener fresh;
    EXPECT_TRUE(orb().registerOrbCreation(&fresh, true));
    EXPECT_GE(fresh.notices().size(), 1u);
}

}  // namespace
