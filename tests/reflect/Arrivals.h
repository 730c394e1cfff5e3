// Arrivals and departures of other brokers, for tests that must not overlap them.
#pragma once

#include <map>
#include <string>

#include "Permitted.h"
#include "Waiting.h"
#include "reflect.h"

/** The brokers that the test's broker has caught up with, and that have gone. */
class Arrivals final : public TreflectOrbObserverIf {
public:
    void notify(Transport::TerminationId const& broker, Appear_t const& what) override {
        told_[broker] += what == kAppear ? "+" : "-";
    }
    bool have(Transport::TerminationId const& broker) { return of(broker) == "+"; }
    /** A plus for each arrival, a minus for each departure. */
    std::string of(Transport::TerminationId const& broker) {
        return permitted([&] { return told_[broker]; });
    }

private:
    std::map<Transport::TerminationId, std::string> told_;  // guarded by the run permission
};

/** Made before another broker starts, it waits until that one has been caught up with. */
class ArrivalWatch {
public:
    explicit ArrivalWatch(TreflectORB& orb) : orb_(orb) { orb_.registerOrbCreation(&told_, false); }
    ~ArrivalWatch() { orb_.unregisterOrbNotifications(&told_); }
    ArrivalWatch(ArrivalWatch const&) = delete;
    ArrivalWatch& operator=(ArrivalWatch const&) = delete;
    bool await(Transport::TerminationId const& broker) {
        return testsupport::eventually([&] { return told_.have(broker); });
    }

private:
    TreflectORB& orb_;
    Arrivals told_;
};
