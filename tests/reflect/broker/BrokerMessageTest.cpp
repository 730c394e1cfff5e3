// Requests and responses as they go over the wire, against a peer that writes them by hand.
#include "BrokerTest.h"
#include "Probe.h"
#include "RawPeer.h"
#include "ReflectActor.h"
#include "Threads.h"
#include "oswrap/Thread.h"

namespace {

using testsupport::TestThread;

class BrokerMessageTest : public BrokerTest {
protected:
    ProbeClient::Answer call(Transport::TerminationId target, bool withResponse = true) {
        return forwardCall(orb(), orb().convertId(target), withResponse);
    }
    void callCancellably(Transport::TerminationId target) {
        TreflectHandlerState const handlerState(true);
        call(target);
        pthread_testcancel();  // a call that did not sleep may have been over before
    }
    static void answerWith(RawPeer& peer, TreflectMessage const& request, unsigned int number) {
        peer.answer(request, [number](TipprmiStream& response) {
            response << TipprmiExceptionContainer() << number;
        });
    }
};

TEST_F(BrokerMessageTest, onlyTheFirstResponseWithTheRightIdWakesItsCaller) {
    RawPeer peer(group(), [](RawPeer& self, TreflectMessage& request) {
        TreflectMessage wrong = self.make(request.transactionId() + 0x00100000, request.type(),
                                          TreflectMessage::kResponse);
        self.send(request.originator(), wrong);
        answerWith(self, request, 7);
        answerWith(self, request, 8);
    });
    EXPECT_EQ(call(peer.termId()).number, 7u);
    EXPECT_TRUE(log_.waitFor("receives unexpected response (org=0x", 2)) << "wrong, and late";
    EXPECT_EQ(log_.find("receives unexpected response")->level, 3);
    EXPECT_EQ(log_.count(5, "    Message data: ioid=0x0,transaction=false,cc=0x0,mc=0"), 1u);
    EXPECT_EQ(call(peer.termId()).number, 7u) << "not the late one of the first call";
}

TEST_F(BrokerMessageTest, onlyWhoWasAskedCanAnswer) {
    RawPeer forger(group());
    RawPeer peer(group(), [&](RawPeer& self, TreflectMessage& request) {
        for (auto const kind : {TreflectMessage::kResponse, TreflectMessage::kNoDestination,
                                TreflectMessage::kResponse, TreflectMessage::kResponse}) {
            TipprmiStream forged(forger.make(request.transactionId(), request.type(), kind), true);
            forged << 0x77u << true << 0xCu << 1;  // what comes back looks like the call
            forger.send(request.originator(), forged.msg());
        }
        EXPECT_TRUE(log_.waitFor("drops response of ", 3));
        answerWith(self, request, 7);
    });
    ProbeClient::Answer const outcome = call(peer.termId());
    EXPECT_TRUE(outcome.succeeded);
    EXPECT_EQ(outcome.number, 7u);
    EXPECT_EQ(call(peer.termId()).number, 7u);
    EXPECT_EQ(log_.count(3, "drops response of "), 3u) << "about each who forges";
    EXPECT_FALSE(log_.contains("unexpected response"));
}

TEST_F(BrokerMessageTest, oneWayCallThatComesBackCountsAsFailedAndEndsNoRequest) {
    RawPeer peer(group(), [](RawPeer& self, TreflectMessage& message) {
        // A one-way call by its payload. Ids come round: it may have that of a request.
        TipprmiStream back(self.make(message.transactionId(), TreflectMessage::tPayload,
                                     TreflectMessage::kNoDestination),
                           true);
        back << 0x77u << false << 0xCu << 1;
        self.send(message.originator(), back.msg());
        if (message.kind() == TreflectMessage::kRequest)
            answerWith(self, message, 7);
    });
    call(peer.termId(), false);
    EXPECT_EQ(call(peer.termId()).number, 7u);
    EXPECT_TRUE(log_.waitFor("one-way call to ", 2));
    EXPECT_EQ(log_.count(3, "receives unexpected response"), 2u);
    TreflectORB::PerfCntInfo const info = orb().getPerfCnts(orb().termId());
    ASSERT_GE(info.counters.getLength(), 1u);
    unsigned int failed = 0;
    for (unsigned int i = 0; i < info.counters.getLength(); ++i)
        failed += info.counters[i].termination == peer.termId() ? info.counters[i].failed : 0;
    EXPECT_EQ(failed, 2u);
}

TEST_F(BrokerMessageTest, callIsAnsweredWithAFailureWhenThereIsNoMemoryForAnAnswer) {
    auto const starved = makePermitted<Acting>("starved", [](int method, auto&, auto& answer) {
        answer = TipprmiStream(TreflectMessage(Transport::AddressedMessage()), true);
        return method == 1;
    });
    RawPeer peer(group());
    // Later there is some, but the header was lost.
    for (int const mc : {1, 2}) {
        auto const id = static_cast<unsigned int>(mc);
        peer.sendCall(broker(), id, starved->getInternalOID(), true, kProbeClass, mc);
        TreflectMessage const answer = peer.await(id - 1);
        ASSERT_EQ(answer.kind(), TreflectMessage::kResponse);
        EXPECT_EQ(answer.transactionId(), id);
        EXPECT_EQ(answer.type(), TreflectMessage::tPayload);
        TipprmiStream response(answer, false);
        ProbeClient::Answer const outcome = ProbeClient::read(true, response);
        EXPECT_EQ(outcome.exceptionType, 1u);
        EXPECT_EQ(outcome.exceptionCode, 0u);
    }
}

TEST_F(BrokerMessageTest, linesThatAnyoneCanCauseAreFew) {
    constexpr unsigned int kMany = 1000;
    RawPeer peer(group());
    for (unsigned int i = 0; i < kMany; ++i) {
        TreflectMessage response =
            peer.make(i, TreflectMessage::tPayload, TreflectMessage::kResponse);
        peer.send(broker(), response);
        TreflectMessage nonsense =
            peer.make(i, static_cast<TreflectMessage::type_t>(99), TreflectMessage::kRequest);
        peer.send(broker(), nonsense);
        Transport::AddressedMessage tooShort = peer.allocateMessage(8, 5);
        Transport::Termination(broker()).issue(tooShort);
        for (bool const withResponse : {true, false})
            peer.sendCall(broker(), i, 0xBAD, withResponse, 0xC, 1);
    }
    peer.sendCall(broker(), kMany, 0xBAD, true, 0xC, 1);
    EXPECT_EQ(peer.await(kMany).transactionId(), kMany) << "an answer where one is awaited";
    for (char const* const line : {"receives unexpected response", "received request of unknown",
                                   "drops message of 8 bytes", "ioid=0xBAD", "rc=0"}) {
        EXPECT_GE(log_.count(3, line), 5u) << line;
        EXPECT_LE(log_.count(3, line), kMany / 10) << line;
    }
    for (char const* const transaction : {"true", "false"})
        EXPECT_TRUE(log_.contains(std::string("ioid=0xBAD,transaction=") + transaction +
                                  ",classCode=0xC,methodCode=1"));
    EXPECT_TRUE(log_.contains("Handling request message failed rc=0"));
}

TEST_F(BrokerMessageTest, callsOfWhoIsNotThereOrReturnsThemFailAtOnce) {
    Transport::Termination const broker(orb().termId());
    RawPeer peer(group(), [broker](RawPeer&, TreflectMessage& request) {
        broker.issueError(request.addressed());
    });
    for (auto const target : {Transport::TerminationId(0x7FFE, 1, group()), peer.termId()}) {
        ProbeClient::Answer const outcome = call(target);
        EXPECT_FALSE(outcome.succeeded);
        EXPECT_EQ(outcome.exceptionType, 1u);
        EXPECT_EQ(outcome.exceptionCode, 0u);
    }
    expectLine(3, "could not find destination termId=0x01017FFE for transactionId ");
    expectLine(3, "receives TRANSPORT_ERROR message of termId 0x");
}

// Others choose where calls lead, such as those of observers that they have registered.
TEST_F(BrokerMessageTest, linesAboutCallsThatReachNobodyAreFew) {
    constexpr int kMany = 300;
    Transport::Termination const broker(orb().termId());
    RawPeer returning(group(), [broker](RawPeer&, TreflectMessage& request) {
        broker.issueError(request.addressed());
    });
    auto const refusing = makePermitted<Probe>("refusing");
    TreflectHandlerState const permission(true);
    TipprmiOID const nameless(static_cast<char const*>(nullptr), NSID_UNIT);
    TreflectOrbId const nobody(0x7FFE, 1, NSID_UNIT);
    TreflectObjectStub const nowhere, local(refusing.get()),
        gone(TreflectORB::TreflectObjectLocation(5u, nobody, nullptr, nameless));
    TreflectObjectStub invalid(gone);
    invalid.setInvalid();
    for (int i = 0; i < kMany; ++i) {
        call(returning.termId());
        for (auto const stub :
             std::vector<TreflectObjectStub const*>{&nowhere, &local, &gone, &invalid}) {
            TipprmiStream in(100), out(100);
            stub->prepareRequestStream(true, kProbeClass, kRefuse, in);
            EXPECT_NE(stub->dispatch(true, kProbeClass, kRefuse, in, out), 1);
        }
    }
    for (auto const& [level, line] :
         std::vector<std::pair<int, char const*>>{{3, "could not find destination"},
                                                  {3, "receives TRANSPORT_ERROR message"},
                                                  {5, "    Message data: ioid="},
                                                  {4, " to non connected stub object"},
                                                  {3, " request to invalid stub object"},
                                                  {3, " to object failed"},
                                                  {3, "Message forwarding failed"},
                                                  {4, ") to stub object set to invalid"},
                                                  {4, " request to stub object set to invalid"}}) {
        EXPECT_GE(log_.count(level, line), 5u) << line;
        EXPECT_LE(log_.count(level, line), kMany / 10u) << line;
    }
}

/** Holds up all news of departures in this process, from the first one that it is told. */
class SlowToHear final : public Transport::TerminationImpl {
public:
    explicit SlowToHear(Transport::GroupId group) : TerminationImpl(group, "slow") { start(); }
    ~SlowToHear() override {
        goOn.open();
        stop();
    }
    bool receive(Transport::AddressedMessage const&) override { return true; }
    bool receiveError(Transport::AddressedMessage const&) override { return true; }
    void appeared(Transport::Termination&) override { heard.open(); }
    void disappeare(Transport::Termination&) override {
        told.open();
        goOn.wait();
    }

    testsupport::Gate heard, told, goOn;
};

TEST_F(BrokerMessageTest, whoseCallFailsBecauseItsTargetHasGoneFindsTheHandleInvalid) {
    ReflectActor stopped, killed;
    stopped.publish("stopped");
    Transport::TerminationId const gone =
        orb().convertId(TreflectOrbId(killed.publish("killed").broker));
    auto const waiting = makePermitted<ProbeClient>(oid("stopped"));
    auto const late = makePermitted<ProbeClient>(oid("killed"));
    SlowToHear slow(group());
    ASSERT_TRUE(slow.heard.wait()) << "after the broker, which was there before";
    { RawPeer const shortLived(group()); }
    ASSERT_TRUE(slow.told.wait());
    // One call waits for its response, in the channel of a process that does not read.
    ASSERT_TRUE(stopped.child().stopWholly());
    testsupport::Gate calling;
    std::thread caller([&] {
        TreflectHandlerState const handlerState(true);
        EXPECT_TRUE(waiting->isConnected());
        calling.open();
        EXPECT_FALSE(waiting->call(kEcho).succeeded);
        EXPECT_FALSE(waiting->isConnected());
    });
    ASSERT_TRUE(calling.wait());
    EXPECT_TRUE(permissionGetsFree());
    stopped.child().kill();
    caller.join();
    // The other begins when the transport knows already.
    EXPECT_TRUE(Transport::TransportLayer::instance().exists(gone));
    killed.child().kill();
    EXPECT_SOON(!Transport::TransportLayer::instance().exists(gone));
    permitted([&] {
        EXPECT_TRUE(late->isConnected()) << "its end has not been told";
        EXPECT_FALSE(late->call(kEcho).succeeded);
        EXPECT_FALSE(late->isConnected());
    });
}

TEST_F(BrokerMessageTest, tooShortRequestIsReportedAndSent) {
    RawPeer peer(group());
    TipprmiStream request(100);
    TipprmiStream response(100);
    request << 1u;
    EXPECT_TRUE(orb().forwardMsg(orb().convertId(peer.termId()), false, request, response));
    EXPECT_EQ(log_.count(3, "forwardMsg message too short (iptr_=4,size=100)"), 1u);
    EXPECT_EQ(peer.await(0).kind(), TreflectMessage::kMsg);
}

TEST_F(BrokerMessageTest, objectThatMisbehavesHarmsNobody) {
    RawPeer peer(group());
    auto const probe = makePermitted<Probe>("bad");
    unsigned int id = 0;
    auto const answerTo = [&](int method) {
        peer.sendCall(broker(), ++id, probe->getInternalOID(), true, kProbeClass, method);
        return wire::data(peer.await(id - 1));
    };
    for (int const method : {kThrowError, kThrowNumber, kRefuse, kEndThread})
        EXPECT_EQ(answerTo(method), wire::kNotServed) << "method " << method;
    EXPECT_EQ(log_.count(3, "threw on purpose"), 1u);
    for (int const method : {kTakeTwice, kReleaseAll, kTakeTwice, kEcho})
        EXPECT_EQ(answerTo(method), wire::kEmptyContainer + wire::number(0)) << "method " << method;
    for (int const method : {kTakeTwice, kReleaseAll}) {
        answerTo(method);
        EXPECT_TRUE(permissionGetsFree()) << "method " << method;
    }
}

TEST_F(BrokerMessageTest, receivingThreadNeverWaitsForAResponse) {
    RawPeer peer(group());
    // Whoever hands a message over is the receiving thread: here, the test's.
    orb().receive(peer.make(1, TreflectMessage::tPayload, TreflectMessage::kResponse));
    log_.clear();
    EXPECT_TRUE(call(peer.termId(), true).succeeded);
    EXPECT_EQ(peer.await(0).kind(), TreflectMessage::kRequest);
    EXPECT_TRUE(call(peer.termId(), false).succeeded);
    EXPECT_EQ(peer.await(1).kind(), TreflectMessage::kMsg);
    EXPECT_EQ(log_.count(3, "ORB did NOT add tID "), 1u);
    EXPECT_EQ(log_.count(3, " transaction to ongoingRequests_"), 1u);
    EXPECT_EQ(log_.count(3, "receivingThread called forwardMessage"), 1u);
    std::string const thread = std::to_string(OSWrap::Thread::getCurrentId());
    EXPECT_EQ(log_.count(3, "ORB receiving thread = " + thread + " found in forwardMsg()"), 1u);
    answerWith(peer, peer.await(0), 1);
    EXPECT_TRUE(log_.waitFor("receives unexpected response")) << "nobody was entered";
}

TEST_F(BrokerMessageTest, cancelledCallerTakesItsRecordOut) {
    RawPeer peer(group());
    TestThread caller([&] { callCancellably(peer.termId()); });
    TreflectMessage const request = peer.await(0);
    caller.cancel();
    EXPECT_TRUE(caller.join());
    EXPECT_TRUE(permissionGetsFree());

    // All other ids are given until its answer comes, which is not that of the next call.
    constexpr std::size_t kOthers = 4095;
    for (std::size_t i = 0; i < kOthers; ++i)
        ASSERT_TRUE(call(peer.termId(), false).succeeded);
    TestThread next([&] { EXPECT_EQ(call(peer.termId()).number, 2u); });
    TreflectMessage const nextRequest = peer.await(1 + kOthers);
    EXPECT_EQ(nextRequest.kind(), TreflectMessage::kRequest);
    answerWith(peer, request, 1);
    answerWith(peer, nextRequest, 2);
    next.join();
    EXPECT_TRUE(log_.waitFor("receives unexpected response"));
}

// The response queues a sleeping caller for the run permission, which is away.
TEST_F(BrokerMessageTest, callerCancelledAfterItsResponseLeavesTheQueueForThePermission) {
    RawPeer peer(group());
    TestThread caller([&] { callCancellably(peer.termId()); });
    TreflectMessage const request = peer.await(0);
    {
        TreflectHandlerState const permission(true);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // more than a caller polls
        answerWith(peer, request, 1);
        EXPECT_TRUE(queueGrowsTo(1));
        caller.cancel();
    }
    EXPECT_TRUE(caller.join());
    EXPECT_TRUE(permissionGetsFree());
}

}  // namespace
