// Notices that come while an observer is on its way into the list.
#include <atomic>
#include <set>
#include <thread>

#include "BrokerTest.h"
#include "Permitted.h"
#include "RawPeer.h"
#include "Thing.h"

namespace {

constexpr unsigned int kClass = 0x0EE71A9;
using Names = std::vector<std::string>;

/** The brokers that the test's broker has caught up with. */
class Arrivals final : public TreflectOrbObserverIf {
public:
    void notify(Transport::TerminationId const& broker, Appear_t const&) override {
        met_.insert(broker);
    }
    bool have(Transport::TerminationId const& broker) const {
        return permitted([&] { return met_.count(broker) != 0; });
    }

private:
    std::set<Transport::TerminationId> met_;  // guarded by the run permission
};

/** `second_` is on its way into the list, waiting for the peer, when something happens that
 * `first_` is told of; and `first_` returns from that only when `second_` is in the list. */
class NoticeOverlapTest : public BrokerTest {
protected:
    NoticeOverlapTest() {
        orb().registerOrbCreation(&arrivals_, false);
        peer_ = std::make_unique<RawPeer>(group(), [this](RawPeer&, TreflectMessage& message) {
            if (!holding_)
                answer(message);
        });
        EXPECT_TRUE(testsupport::eventually([&] { return arrivals_.have(peer_->termId()); }));
        orb().unregisterOrbNotifications(&arrivals_);
        TreflectHandlerState const inside(true);
        first_ = std::make_unique<Watcher>("first", [this](auto&, auto&) {
            TreflectReleaseHandlerState const released;
            answer(peer_->await(held_));
            EXPECT_TRUE(subscribed_.wait());
        });
        second_ = std::make_unique<Watcher>("second");
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
            response << 1u << kClass;
        });
    }
    template <class Subscribe>
    std::thread subscribing(Subscribe subscribe) {
        return std::thread([this, subscribe] {
            permitted([&] {
                subscribe();
                subscribed_.open();
            });
        });
    }
    void expectToldOnce() {
        EXPECT_EQ(first_->told(), Names{"thing"});
        EXPECT_EQ(second_->told(), Names{"thing"});
    }

    TreflectMetaObject& meta_ = thingClass(kClass);
    Arrivals arrivals_;
    std::unique_ptr<RawPeer> peer_;  // is no newcomer any more
    std::unique_ptr<Watcher> first_;
    std::unique_ptr<Watcher> second_;
    std::unique_ptr<Thing> thing_;
    testsupport::Gate subscribed_;
    std::atomic<bool> holding_{false};
    std::size_t held_ = 0;
};

TEST_F(NoticeOverlapTest, creationIsToldOnceToWhoEntersTheListMeanwhile) {
    permitted([this] { meta_.observeCreations(first_.get(), false); });
    holdAfter(1);
    std::thread thread = subscribing([this] { meta_.observeCreations(second_.get(), true); });
    EXPECT_FALSE(peer_->await(held_).empty());
    permitted([this] {
        thing_ = std::make_unique<Thing>("thing", kClass);
        expectToldOnce();
    });
    thread.join();
    holding_ = false;
    permitted([this] { thing_.reset(); });
}

TEST_F(NoticeOverlapTest, deletionIsToldOnceToWhoEntersTheListMeanwhile) {
    permitted([this] { thing_ = std::make_unique<Thing>("thing", kClass); });
    // Both find the list empty; the peer's first answer is for the one that comes first.
    holdAfter(0);
    testsupport::Gate entered;
    std::thread firstThread([&] {
        permitted([&] {
            meta_.observeDeletions(first_.get());
            entered.open();
        });
    });
    EXPECT_FALSE(peer_->await(held_).empty());
    testsupport::Gate begun;
    std::thread secondThread = subscribing([this, &begun] {
        begun.open();
        meta_.observeDeletions(second_.get());
    });
    EXPECT_TRUE(begun.wait());
    permitted([] {});  // the second gives up the permission only when it waits
    answer(peer_->await(held_));
    EXPECT_TRUE(entered.wait());
    EXPECT_FALSE(peer_->await(++held_).empty());
    permitted([this] {
        thing_.reset();
        expectToldOnce();
    });
    firstThread.join();
    secondThread.join();
    holding_ = false;
}

}  // namespace
