#include "Group.h"

#include <handler_threads.h>
#include <reflect.h>
#include <transport.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "EndSignals.h"
#include "Report.h"

namespace {

/** Says lines up to a number of them that is wanted; 0 for any number. Guarded by the run
 * permission. */
class Report {
public:
    explicit Report(unsigned int wanted) : wanted_(wanted) {}

    void line(std::string const& text) {
        if (isFull())
            return;
        say(text);
        ++said_;
    }
    bool isFull() const { return wanted_ != 0 && said_ >= wanted_; }

private:
    unsigned int const wanted_;
    unsigned int said_ = 0;
};

/** Hears of the objects of one class that are created, or deleted. */
class ObjectFollower final : public TreflectObserver {
public:
    ObjectFollower(TreflectMetaObject& meta, bool ofCreations, Report& report)
        : meta_(meta), ofCreations_(ofCreations), report_(report) {}
    ~ObjectFollower() override { meta_.removeObserver(this); }

    void begin() {
        if (ofCreations_)
            meta_.observeCreations(this, true);
        else
            meta_.observeDeletions(this);
    }

    bool update() override {
        // The object is asked for its name while it is there: it goes when we have answered.
        std::string const name = getSource()->getAbsName();
        report_.line((ofCreations_ ? "+ " : "- ") + meta_.name() + " " + name);
        return true;
    }

private:
    TreflectMetaObject& meta_;
    bool const ofCreations_;
    Report& report_;
};

class BrokerFollower final : public TreflectOrbObserverIf {
public:
    BrokerFollower(TreflectORB& orb, Report& report) : orb_(orb), report_(report) {
        orb_.registerOrbCreation(this, false);
        orb_.registerOrbDeletion(this);
    }
    ~BrokerFollower() override { orb_.unregisterOrbNotifications(this); }

    void notify(Transport::TerminationId const& broker, Appear_t const& what) override {
        char text[32];
        std::snprintf(text, sizeof text, "%s broker 0x%08X", what == kAppear ? "+" : "-",
                      broker.value());
        report_.line(text);
    }

private:
    TreflectORB& orb_;
    Report& report_;
};

void printBroker(TreflectORB::BrokerInfo const& broker) {
    std::printf("%-20s broker 0x%08X  address 0x%08X\n",
                broker.answered ? broker.info.actor.c_str() : "(no answer)", broker.orbId.value(),
                broker.termination.value());
    for (unsigned int i = 0; i < broker.info.counters.getLength(); ++i) {
        TreflectORB::PerfCnts const& counted = broker.info.counters[i];
        std::printf("    to 0x%08X  %u sent, %u failed\n", counted.termination.value(),
                    counted.sent, counted.failed);
    }
}

}  // namespace

bool hasJoinedGroup() {
    TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT);
    return orb && Transport::TransportLayer::instance().exists(orb->termId());
}

void printBrokers() {
    for (TreflectORB::BrokerInfo const& broker : TreflectORB::getInstance(NSID_UNIT)->getBrokers())
        printBroker(broker);
}

void follow(unsigned int count) {
    Report report(count);
    std::vector<std::unique_ptr<ObjectFollower>> followers;
    for (unsigned int const classId : InterfaceRepository::instance()->getIfIds()) {
        TreflectMetaObject& meta = *InterfaceRepository::instance()->findInterface(classId);
        for (bool const ofCreations : {false, true}) {
            followers.push_back(std::make_unique<ObjectFollower>(meta, ofCreations, report));
            followers.back()->begin();
        }
    }
    BrokerFollower const brokers(*TreflectORB::getInstance(NSID_UNIT), report);
    while (!report.isFull() && !endSignalled()) {
    }
}
