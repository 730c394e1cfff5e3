// Observers of brokers that come and go, and what a broker that goes leaves behind.
#include <thread>

#include "BrokerActor.h"
#include "BrokerTest.h"
#include "Probe.h"
#include "RawPeer.h"
#include "Threads.h"
#include "reflect/TreflectOrbObserver.h"

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
        bool operator==(std::pair<Transport::TerminationId, Appear_t> const& other) const {
            return broker == other.first && what == other.second;
        }
    };
    using Reaction = std::function<void(Notice const&)>;

    explicit Listener(Reaction reaction = {}) : reaction_(std::move(reaction)) {}

    void notify(Transport::TerminationId const& broker, Appear_t const& what) override {
        EXPECT_TRUE(TreflectORB::hasRunPermission());
        Notice const notice{broker, what, OSWrap::Thread::getCurrentId()};
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            notices_.push_back(notice);
        }
        if (reaction_)
            reaction_(notice);
    }

    std::vector<Notice> notices() {
        std::lock_guard<std::mutex> const lock(mutex_);
        return notices_;
    }
    std::vector<Notice> of(Transport::TerminationId broker) {
        std::vector<Notice> some;
        for (Notice const& notice : notices()) {
            if (notice.broker == broker)
                some.push_back(notice);
        }
        return some;
    }
    bool waitFor(Transport::TerminationId broker, Appear_t what) {
        return testsupport::eventually([&] {
            for (Notice const& notice : of(broker)) {
                if (notice.what == what)
                    return true;
            }
            return false;
        });
    }

private:
    Reaction const reaction_;
    std::mutex mutex_;
    std::vector<Notice> notices_;  // guarded by mutex_
};

class PresenceObserverTest : public BrokerTest {};

// ---- Observers ---------------------------------------------------------------------------------

TEST_F(PresenceObserverTest, eachIsToldWhatItAskedForInTheOrderOfRegistration) {
    std::vector<std::pair<char, Appear_t>> order;  // guarded by the run permission
    auto const note = [&](char who) {
        return [&order, who](auto const& notice) { order.emplace_back(who, notice.what); };
    };
    orb();
    Listener both(note('b'));
    Listener births(note('+'));
    Listener deaths(note('-'));
    EXPECT_TRUE(orb().registerOrbCreation(&both, false));
    EXPECT_TRUE(orb().registerOrbDeletion(&deaths));
    EXPECT_TRUE(orb().registerOrbCreation(&births, false));
    EXPECT_TRUE(orb().registerOrbDeletion(&both)) << "keeps its place";
    {
        TreflectHandlerState const handlerState(true);
        order.clear();  // of this process's own arrival
    }
    Transport::TerminationId peer;
    {
        RawPeer shortLived(group());
        peer = shortLived.termId();
        ASSERT_TRUE(births.waitFor(peer, Appear_t::kAppear));
    }
    ASSERT_TRUE(deaths.waitFor(peer, Appear_t::kDisappear));
    orb().unregisterOrbNotifications(&deaths);
    TreflectHandlerState const handlerState(true);
    std::vector<std::pair<char, Appear_t>> const expected{{'b', Appear_t::kAppear},
                                                          {'+', Appear_t::kAppear},
                                                          {'b', Appear_t::kDisappear},
                                                          {'-', Appear_t::kDisappear}};
    EXPECT_EQ(order, expected);
    EXPECT_EQ(both.of(peer).size(), 2u);
    EXPECT_NE(both.of(peer)[0].thread, OSWrap::Thread::getCurrentId());
    orb().unregisterOrbNotifications(&both);
    orb().unregisterOrbNotifications(&births);
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
    EXPECT_FALSE(orb().registerOrbCreation(nullptr, true));
    EXPECT_FALSE(orb().registerOrbDeletion(nullptr));
    orb().unregisterOrbNotifications(nullptr);
    orb().unregisterOrbNotifications(&listener);
}

TEST_F(PresenceObserverTest, brokersOfOtherNamespacesAreToldOfAndNotSubscribedAt) {
    Listener listener;
    orb().registerOrbCreation(&listener, false);
    orb().registerOrbDeletion(&listener);
    Transport::TerminationId id;
    {
        RawPeer stranger(orb().getMyGroup(NSID_NODE));
        id = stranger.termId();
        ASSERT_TRUE(listener.waitFor(id, Appear_t::kAppear));
        EXPECT_EQ(stranger.count(), 0u);
    }
    EXPECT_TRUE(listener.waitFor(id, Appear_t::kDisappear));
    orb().unregisterOrbNotifications(&listener);
}

TEST_F(PresenceObserverTest, noticesAreToldOneAtATimeAndInOrderThoughTheFirstIsSlow) {
    testsupport::Gate entered;
    testsupport::Gate released;
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    Listener slow([&](auto const&) {
        most = std::max<int>(most, ++inside);
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
    for (Transport::TerminationId const id : ids)
        ASSERT_TRUE(slow.waitFor(id, Appear_t::kDisappear));
    EXPECT_EQ(most, 1);
    for (Transport::TerminationId const id : ids) {
        auto const notices = slow.of(id);
        EXPECT_EQ(notices.back().what, Appear_t::kDisappear);
        EXPECT_LE(notices.size(), 2u) << "an arrival that came too late may be left out";
    }
    orb().unregisterOrbNotifications(&slow);
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
    orb().unregisterOrbNotifications(&last);
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
    for (Listener* const one : {&throwing, &greedy, &last})
        orb().unregisterOrbNotifications(one);
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
    std::vector<std::string> expected(4);
    char line[100];
    std::snprintf(line, sizeof line,
                  "ORB (termId=0x%X) has 3 observer registered:", orb().termId().value());
    expected[0] = line;
    std::size_t at = 1;
    for (auto const& [observer, type] : {std::pair<Listener*, char const*>{&births, "Appear"},
                                         {&deaths, "Disappear"},
                                         {&all, "All"}}) {
        std::snprintf(line, sizeof line, "   Observer 0x%p registered for %s",
                      static_cast<void*>(static_cast<TreflectOrbObserverIf*>(observer)), type);
        expected[at++] = line;
    }
    EXPECT_EQ(log_.texts(), expected);
    for (auto const& record : log_.records()) {
        EXPECT_EQ(record.level, 5);
        EXPECT_EQ(record.source, "REFLECT_OrbObserver");
    }
    EXPECT_EQ(TreflectOrbObserver::typeStr(Appear_t::kStop), "ERROR");
    EXPECT_EQ(TreflectOrbObserver::typeStr(static_cast<Appear_t>(0)), "ERROR");
}

TEST_F(PresenceObserverTest, onlyWhoAsksForArrivalsAloneIsToldOfTheExisting) {
    auto const part = std::make_shared<TreflectOrbObserver>();
    orb();
    Listener listener;
    EXPECT_TRUE(part->subscribe(&listener, Appear_t::kAll, true));
    EXPECT_TRUE(part->subscribe(&listener, Appear_t::kDisappear, true));
    EXPECT_EQ(listener.notices().size(), 0u);
    EXPECT_TRUE(part->subscribe(&listener, Appear_t::kAppear, true));
    EXPECT_GE(listener.notices().size(), 1u);
}

TEST_F(PresenceObserverTest, threadTellsWhatWasQueuedBeforeItsEnd) {
    auto const part = std::make_shared<TreflectOrbObserver>();
    Listener births;
    Listener all;
    part->subscribe(&births, Appear_t::kAppear, false);
    part->subscribe(&all, Appear_t::kAll, false);
    Transport::TerminationId const id(0x01010007u);
    for (Appear_t const what : {Appear_t::kAppear, Appear_t::kDisappear, Appear_t::kAppear})
        part->notify(id, what);
    TreflectOrbObserver::startWorker(part);
    part->stopWorker();
    EXPECT_EQ(all.notices().size(), 3u);
    EXPECT_EQ(births.notices().size(), 2u);
    part->notify(id, Appear_t::kAppear);
    EXPECT_EQ(all.notices().size(), 3u);
}

// ---- The end of brokers ------------------------------------------------------------------------

TEST_F(PresenceObserverTest, threadEndsWithItsBroker) {
    orb();
    orb(NSID_NODE);
    EXPECT_EQ(statesOfThreads("OrbObsWorker").size(), 2u);
    prepareOrbForDeletion();
    EXPECT_TRUE(testsupport::eventually([] { return statesOfThreads("OrbObsWorker").empty(); }));
}

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
    orb().unregisterOrbNotifications(&fresh);
}

/** A server in another process that is killed. */
class DeathTest : public BrokerTest {
protected:
    static bool holds(BrokerActor& server, std::string const& name, int calls) {
        return testsupport::eventually(
            [&] { return server.ask("holding " + name, "holding") == std::to_string(calls); });
    }

    std::unique_ptr<BrokerActor> server_ = std::make_unique<BrokerActor>();
};

TEST_F(DeathTest, requestFailsAtOnceAndHandlesGoInvalid) {
    server_->publish("lamp");
    orb();
    TreflectHandlerState const handlerState(true);
    ProbeClient client{TipprmiOID("lamp", NSID_UNIT)};
    ProbeClient idle(client);
    TreflectObject copy{TipprmiOID("lamp", NSID_UNIT)};
    ASSERT_TRUE(client.isConnected());
    Clock::time_point killed;
    std::thread killer([&] {
        EXPECT_TRUE(holds(*server_, "lamp", 1));
        killed = Clock::now();
        server_->child().kill();
    });
    ProbeClient::Answer const answer = client.call(kHold);
    auto const took = Clock::now() - killed;
    killer.join();
    std::printf("[ measured ] call ended %.1f ms after the kill\n",
                std::chrono::duration<double, std::milli>(took).count());
    EXPECT_LT(took, std::chrono::seconds(2));
    EXPECT_FALSE(answer.succeeded);
    EXPECT_EQ(answer.exceptionType, 1u);
    EXPECT_EQ(answer.exceptionCode, 0u);
    EXPECT_TRUE(log_.contains("aborted (Detection Rem.Disc.=true"));
    for (TipprmiObjectClient const* const handle :
         {static_cast<TipprmiObjectClient*>(&client), static_cast<TipprmiObjectClient*>(&idle),
          static_cast<TipprmiObjectClient*>(&copy)})
        EXPECT_FALSE(handle->isConnected());
    EXPECT_FALSE(client.call(kEcho, 1).succeeded);

    server_ = std::make_unique<BrokerActor>();
    server_->publish("lamp");
    EXPECT_FALSE(client.call(kEcho, 1).succeeded) << "an old handle stays invalid";
    ProbeClient fresh{TipprmiOID("lamp", NSID_UNIT)};
    EXPECT_EQ(fresh.call(kEcho, 42).number, 42u);
}

TEST_F(DeathTest, allRequestsThatWaitForItEndAndOthersGoOn) {
    server_->publish("lamp");
    BrokerActor other;
    other.publish("mast");
    orb();
    std::vector<std::thread> callers;
    std::atomic<int> failed{0};
    constexpr int kCallers = 20;
    for (int i = 0; i < kCallers; ++i)
        callers.emplace_back([&] {
            TreflectHandlerState const handlerState(true);
            ProbeClient client{TipprmiOID("lamp", NSID_UNIT)};
            failed += !client.call(kHold).succeeded;
        });
    std::atomic<bool> ended{false};
    bool succeeded = false;
    std::thread unconcerned([&] {
        TreflectHandlerState const handlerState(true);
        ProbeClient client{TipprmiOID("mast", NSID_UNIT)};
        succeeded = client.call(kHold).succeeded;
        ended = true;
    });
    EXPECT_TRUE(holds(*server_, "lamp", kCallers));
    EXPECT_TRUE(holds(other, "mast", 1));
    server_->child().kill();
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(failed, kCallers);
    EXPECT_FALSE(ended) << "the other call is still served";
    other.ask("release", "released");
    unconcerned.join();
    EXPECT_TRUE(succeeded);
}

}  // namespace
