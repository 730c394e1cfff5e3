// A notice that comes while an observer is on its way into the list.
#include <set>
#include <thread>

#include "BrokerTest.h"
#include "Permitted.h"
#include "RawPeer.h"
#include "Thing.h"

namespace {

constexpr unsigned int kClass = 0x0EE71A9;

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
    Arrivals arrivals;
    orb().registerOrbCreation(&arrivals, false);
    RawPeer peer(group(), [](RawPeer& self, TreflectMessage& request) {
        if (self.count() != 1)
            answer(self, request);
    });
    ASSERT_TRUE(testsupport::eventually([&] { return arrivals.have(peer.termId()); }));
    orb().unregisterOrbNotifications(&arrivals);

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

}  // namespace
