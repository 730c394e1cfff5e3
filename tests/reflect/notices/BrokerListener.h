// Observers of brokers that come and go.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Permitted.h"
#include "Waiting.h"
#include "oswrap/Thread.h"
#include "reflect.h"

/** Notes what it is told, and does what its test wants. */
class BrokerListener : public TreflectOrbObserverIf {
public:
    struct Notice {
        Transport::TerminationId broker;
        Appear_t what;
        unsigned long thread;
    };
    using Reaction = std::function<void(Notice const&)>;

    explicit BrokerListener(Reaction reaction = {}) : reaction_(std::move(reaction)) {}
    ~BrokerListener() override { leave(); }

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
    /** A plus for each arrival, a minus for each departure. */
    std::string signs(Transport::TerminationId broker) {
        std::string signs;
        for (Notice const& notice : of(broker))
            signs += notice.what == kAppear ? "+" : "-";
        return signs;
    }
    bool waitFor(Transport::TerminationId broker, Appear_t what) {
        char const sign = what == kAppear ? '+' : '-';
        return testsupport::eventually(
            [&] { return signs(broker).find(sign) != std::string::npos; });
    }

protected:
    /** Ends its notices: none is under way afterwards. */
    void leave() { TreflectORB::getInstance(NSID_UNIT)->unregisterOrbNotifications(this); }

private:
    Reaction const reaction_;
    std::vector<Notice> notices_;  // guarded by the run permission
};

/** Made before another broker starts, it waits until that one has been caught up with. */
class ArrivalWatch : public BrokerListener {
public:
    explicit ArrivalWatch(TreflectORB& orb) { orb.registerOrbCreation(this, false); }
    /** Nobody calls it any more when it becomes its base. */
    ~ArrivalWatch() override { leave(); }
    bool await(Transport::TerminationId broker) { return waitFor(broker, kAppear); }
};
