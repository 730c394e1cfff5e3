#include "PartWatch.h"

#include <oswrap.h>

#include <cstdio>

#include "generated/machine.h"

namespace {

std::string identifierOf(TreflectObject const& object) {
    return object.identifier().getIdString();
}

}  // namespace

/** Hears of the objects of one class that are made, or destroyed. */
class PartWatch::Follower : public TreflectObserver {
public:
    Follower(PartWatch& watch, unsigned int classId, bool ofCreations)
        : watch_(watch), classId_(classId), ofCreations_(ofCreations) {}
    ~Follower() override { watch_.orb_.removeObserver(classId_, *this); }

    void begin() {
        if (ofCreations_)
            watch_.orb_.observeCreations(classId_, *this, true);
        else
            watch_.orb_.observeDeletions(classId_, *this);
    }

    bool update() override {
        // A copy: the notice may be over before we are done with what it is about.
        TreflectObject const object(*getSource());
        if (ofCreations_)
            watch_.add(classId_, object);
        else
            watch_.remove(classId_, object);
        return true;
    }

private:
    PartWatch& watch_;
    unsigned int const classId_;
    bool const ofCreations_;
};

/** Hears of brokers that come and go. */
class PartWatch::BrokerFollower : public TreflectOrbObserverIf {
public:
    explicit BrokerFollower(PartWatch& watch) : watch_(watch) {
        watch_.orb_.registerOrbCreation(this, false);
        watch_.orb_.registerOrbDeletion(this);
    }
    ~BrokerFollower() override { watch_.orb_.unregisterOrbNotifications(this); }

    void notify(Transport::TerminationId const& broker, Appear_t const& what) override {
        char line[64];
        std::snprintf(line, sizeof line, "broker 0x%08X has %s", broker.value(),
                      what == kAppear ? "come up" : "gone");
        watch_.news_.emplace_back(line);
        if (what == kDisappear)
            watch_.removeUnreachable();
    }

private:
    PartWatch& watch_;
};

PartWatch::PartWatch(NamespaceId nameSpace) : orb_(*TreflectORB::getInstance(nameSpace)) {
    for (TreflectMetaClass const* meta :
         {&cpuMeta, &memoryMeta, &networkInterfaceMeta, &diskMeta, &processMeta, &machineMeta})
        follow(meta->getClassId());
    brokers_ = std::make_unique<BrokerFollower>(*this);
    news_.clear();
}

PartWatch::~PartWatch() {
    brokers_.reset();
}

void PartWatch::follow(unsigned int classId) {
    for (bool const ofCreations : {false, true}) {
        followers_.push_back(std::make_unique<Follower>(*this, classId, ofCreations));
        followers_.back()->begin();
    }
}

std::vector<PartWatch::Part> PartWatch::parts(unsigned int classId) const {
    std::vector<Part> present;
    if (auto const found = parts_.find(classId); found != parts_.end()) {
        for (auto const& part : found->second)
            present.push_back(part.second);
    }
    return present;
}

void PartWatch::add(unsigned int classId, TreflectObject const& object) {
    std::string const name = object.getRelName();
    parts_[classId][identifierOf(object)] = {name, object};
    news_.push_back(name + " has come");
    OSWrap::Lock<TreflectConditionVar> const lock(changed_);
    changed_.broadcast();
}

void PartWatch::remove(unsigned int classId, TreflectObject const& object) {
    auto& parts = parts_[classId];
    auto const part = parts.find(identifierOf(object));
    if (part == parts.end())
        return;
    news_.push_back(part->second.name + " has gone");
    parts.erase(part);
}

/** Handles on objects of a broker that has gone are not connected any more. */
void PartWatch::removeUnreachable() {
    for (auto& ofClass : parts_) {
        for (auto part = ofClass.second.begin(); part != ofClass.second.end();) {
            if (part->second.object.isConnected()) {
                ++part;
                continue;
            }
            news_.push_back(part->second.name + " has gone with its process");
            part = ofClass.second.erase(part);
        }
    }
}

bool PartWatch::awaitMachine(unsigned int seconds) {
    OSWrap::TimeSpec const end = OSWrap::Clock::getObsTime() + OSWrap::TimeSpec(seconds, 0);
    OSWrap::Lock<TreflectConditionVar> const lock(changed_);
    while (parts_[machine::kClass].empty()) {
        OSWrap::TimeSpec const rest = end - OSWrap::Clock::getObsTime();
        if (rest <= OSWrap::TimeSpec())
            return false;
        changed_.wait(rest);
    }
    return true;
}

std::vector<std::string> PartWatch::takeNews() {
    std::vector<std::string> news;
    news.swap(news_);
    return news;
}
