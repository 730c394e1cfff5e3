// Notices that come while an observer is on its way into the list.
#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "BrokerTest.h"
#include "RawPeer.h"
#include "Waiting.h"

namespace {

constexpr unsigned int kClass = 0x0EE71A9;
TreflectMetaClass& overlapMeta() {
    static auto& meta = *new TreflectMetaClass("Overlap", kClass, {}, {});
    return meta;
}

class Thing final : public TreflectServerObject {
public:
    Thing() : TreflectServerObject(TipprmiOID("thing", NSID_UNIT), nullptr, "thing") {
        sendCreationEvent();
    }
    ~Thing() override { sendDeletionEvent(); }
    unsigned int getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return overlapMeta().classIds();
    }
};

class Observer final : public TreflectObserver {
public:
    explicit Observer(std::function<void()> reaction = {})
        : TreflectObserver(TipprmiOID("", NSID_UNIT), nullptr, "observer"),
          reaction_(std::move(reaction)) {}
    bool update() override {
        ++told;
        if (reaction_)
            reaction_();
        return true;
    }

    unsigned int told = 0;  // guarded by the run permission

private:
    std::function<void()> const reaction_;
};

/** The brokers that the test's broker has caught up with. */
class Arrivals final : public TreflectOrbObserverIf {
public:
    void notify(Transport::TerminationId const& broker, Appear_t const&) override {
        met_.insert(broker);
    }
    bool have(Transport::TerminationId const& broker) const {
        TreflectHandlerState const inside(true);
        return met_.count(broker) != 0;
    }

private:
    std::set<Transport::TerminationId> met_;  // guarded by the run permission
};

class OverlapTest : public BrokerTest {
protected:
    OverlapTest() : meta_(overlapMeta()) { orb().registerOrbCreation(&arrivals_, false); }
    ~OverlapTest() override { orb().unregisterOrbNotifications(&arrivals_); }

    /** A peer that is no newcomer any more. */
    std::unique_ptr<RawPeer> makePeer(RawPeer::Reaction reaction = {}) {
        auto peer = std::make_unique<RawPeer>(group(), std::move(reaction));
        EXPECT_TRUE(testsupport::eventually([&] { return arrivals_.have(peer->termId()); }));
        return peer;
    }

    TreflectMetaObject& meta_;

private:
    Arrivals arrivals_;
};

/** `second_` is on its way into the list, waiting for the peer, when something happens that
 * `first_` is told of; and `first_` returns from that only when `second_` is in the list. */
class NoticeOverlapTest : public OverlapTest {
protected:
    NoticeOverlapTest() {
        peer_ = makePeer([this](RawPeer&, TreflectMessage& message) {
            if (!holding_)
                answer(message);
        });
        TreflectHandlerState const inside(true);
        first_ = std::make_unique<Observer>([this] {
            TreflectReleaseHandlerState const released;
            answer(peer_->await(held_));
            EXPECT_TRUE(subscribed_.wait());
        });
        second_ = std::make_unique<Observer>();
    }
    ~NoticeOverlapTest() override {
        TreflectHandlerState const inside(true);
        for (auto* const observer : {first_.get(), second_.get()})
            meta_.removeObserver(observer);
        first_.reset();
        second_.reset();
    }

    /** Has the peer answer nothing beyond so many requests, which have come. */
    void holdAfter(std::size_t answered) {
        EXPECT_TRUE(testsupport::eventually([&] { return peer_->count() == answered; }));
        held_ = answered;
        holding_ = true;
    }
    void answer(TreflectMessage const& request) {
        peer_->answer(request, [&](TipprmiStream& response) {
            if (request.type() == TreflectMessage::tOCNSubscribe)
                response << 0u;  // nothing exists
            response << overlapMeta().classIds();
        });
    }
    std::thread subscribing(std::function<void()> subscribe) {
        return std::thread([this, subscribe = std::move(subscribe)] {
            TreflectHandlerState const inside(true);
            subscribe();
            subscribed_.open();
        });
    }

    std::unique_ptr<RawPeer> peer_;
    std::unique_ptr<Observer> first_;
    std::unique_ptr<Observer> second_;
    testsupport::Gate subscribed_;
    std::atomic<bool> holding_{false};
    std::size_t held_ = 0;
};

TEST_F(NoticeOverlapTest, creationIsToldOnceToWhoEntersTheListMeanwhile) {
    {
        TreflectHandlerState const inside(true);
        meta_.observeCreations(first_.get(), false);
    }
    holdAfter(1);
    std::thread thread = subscribing([this] { meta_.observeCreations(second_.get(), true); });
    EXPECT_FALSE(peer_->await(held_).empty());
    std::unique_ptr<Thing> thing;
    {
        TreflectHandlerState const inside(true);
        thing = std::make_unique<Thing>();
        EXPECT_EQ(first_->told, 1u);
        EXPECT_EQ(second_->told, 1u);
    }
    thread.join();
    holding_ = false;
    TreflectHandlerState const inside(true);
    thing.reset();
}

TEST_F(NoticeOverlapTest, deletionIsToldOnceToWhoEntersTheListMeanwhile) {
    std::unique_ptr<Thing> thing;
    {
        TreflectHandlerState const inside(true);
        thing = std::make_unique<Thing>();
    }
    // Both find the list empty; the peer's first answer is for the one that comes first.
    holdAfter(0);
    testsupport::Gate entered;
    std::thread firstThread([&] {
        TreflectHandlerState const inside(true);
        meta_.observeDeletions(first_.get());
        entered.open();
    });
    EXPECT_FALSE(peer_->await(held_).empty());
    testsupport::Gate begun;
    std::thread secondThread = subscribing([&] {
        begun.open();
        meta_.observeDeletions(second_.get());
    });
    EXPECT_TRUE(begun.wait());
    {
        // The second gives up the permission only when it waits.
        TreflectHandlerState const inside(true);
    }
    answer(peer_->await(held_));
    EXPECT_TRUE(entered.wait());
    EXPECT_FALSE(peer_->await(++held_).empty());
    {
        TreflectHandlerState const inside(true);
        thing.reset();
        EXPECT_EQ(first_->told, 1u);
        EXPECT_EQ(second_->told, 1u);
    }
    firstThread.join();
    secondThread.join();
    holding_ = false;
}

/** Notes what it is told of. */
class Listener final : public TreflectObserver {
public:
    Listener() : TreflectObserver(TipprmiOID("", NSID_UNIT), nullptr, "listener") {}
    bool update() override {
        told +=
            std::string(told.empty() ? "" : " ") + getSource()->getStub_()->getOID().getIdString();
        return true;
    }

    std::string told;  // guarded by the run permission
};

/** Two peers: the one that is asked first says at once what it has, the other one answers late. */
class SuccessorTest : public OverlapTest {
protected:
    static constexpr unsigned int kAddress = 7;  // internal id of all objects of a peer

    SuccessorTest() {
        for (auto& peer : peers_)
            peer = makePeer();
        if (peers_[1]->termId() < peers_[0]->termId())
            std::swap(peers_[0], peers_[1]);
    }
    void writeHandle(TipprmiStream& stream, char const* name) {
        stream << TipprmiOID(name, NSID_UNIT) << kAddress
               << orb().convertId(peers_[0]->termId()).value();
    }
    void answerSubscription(RawPeer& peer, char const* existing) {
        peer.answer(peer.await(0), [&](TipprmiStream& response) {
            response << (existing ? 1u : 0u);
            if (existing)
                writeHandle(response, existing);
            response << overlapMeta().classIds();
        });
    }
    /** Has been served when this returns. */
    void notify(TreflectMessage::type_t type, char const* name) {
        std::size_t const answers = peers_[0]->count();
        TipprmiStream notice(peers_[0]->make(1, type, TreflectMessage::kRequest), true);
        notice << kClass;
        writeHandle(notice, name);
        peers_[0]->send(orb().termId(), notice.msg());
        EXPECT_FALSE(peers_[0]->await(answers).empty());
    }

    std::array<std::unique_ptr<RawPeer>, 2> peers_;
};

TEST_F(SuccessorTest, objectAtTheAddressOfOneThatHasGoneIsTold) {
    auto listener = [] {
        TreflectHandlerState const inside(true);
        return std::make_unique<Listener>();
    }();
    std::thread thread([&] {
        TreflectHandlerState const inside(true);
        meta_.observeCreations(listener.get(), true);
    });
    answerSubscription(*peers_[0], "old");
    EXPECT_FALSE(peers_[1]->await(0).empty());
    notify(TreflectMessage::tODN, "old");
    notify(TreflectMessage::tOCN, "new");
    answerSubscription(*peers_[1], nullptr);
    thread.join();
    {
        TreflectHandlerState const inside(true);
        EXPECT_EQ(listener->told, "new");
    }
    TreflectHandlerState const inside(true);
    listener.reset();
}

}  // namespace
