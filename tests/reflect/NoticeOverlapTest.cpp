// Notices that come while an observer is on its way into the list.
#include <atomic>
#include <functional>
#include <memory>
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

/** Opens its gate when a certain broker has been caught up with. */
class Arrival final : public TreflectOrbObserverIf {
public:
    void notify(Transport::TerminationId const&, Appear_t const&) override { gate.open(); }

    testsupport::Gate gate;
};

/** `second_` is on its way into the list, waiting for the peer, when something happens that
 * `first_` is told of; and `first_` returns from that only when `second_` is in the list. */
class NoticeOverlapTest : public BrokerTest {
protected:
    NoticeOverlapTest() : meta_(overlapMeta()) {
        Arrival arrival;
        TreflectORB& broker = orb();
        broker.registerOrbCreation(&arrival, false);
        peer_ = std::make_unique<RawPeer>(group(), [this](RawPeer&, TreflectMessage& message) {
            if (!holding_)
                answer(message);
        });
        EXPECT_TRUE(arrival.gate.wait());
        broker.unregisterOrbNotifications(&arrival);
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

    /** Has the peer answer nothing from now on. */
    void hold() {
        held_ = peer_->count();
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

    TreflectMetaObject& meta_;
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
    hold();
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
    hold();
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

}  // namespace
