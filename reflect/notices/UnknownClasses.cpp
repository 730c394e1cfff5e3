#include "reflect/notices/UnknownClasses.h"

bool UnknownClasses::add(NoticeKind kind, unsigned int classId, TreflectOrbId const& broker) {
    std::set<unsigned int>& classes = brokers_[broker].of(kind);
    if (classes.size() >= kMostOfBroker && classes.count(classId) == 0)
        return false;
    classes.insert(classId);
    return true;
}

void UnknownClasses::remove(unsigned int classId, TreflectOrbId const& broker) {
    if (auto const found = brokers_.find(broker); found != brokers_.end())
        found->second.remove(classId);
}

void UnknownClasses::remove(unsigned int classId) {
    for (auto& entry : brokers_)
        entry.second.remove(classId);
}

UnknownClasses::Subscribers UnknownClasses::of(unsigned int classId) const {
    Subscribers subscribers;
    for (auto const& [broker, classes] : brokers_) {
        if (classes.creations.count(classId) != 0)
            subscribers.creations.insert(broker);
        if (classes.deletions.count(classId) != 0)
            subscribers.deletions.insert(broker);
    }
    return subscribers;
}

std::map<unsigned int, UnknownClasses::Subscribers> UnknownClasses::all() const {
    std::map<unsigned int, Subscribers> subscribers;
    for (auto const& [broker, classes] : brokers_) {
        for (unsigned int const classId : classes.creations)
            subscribers[classId].creations.insert(broker);
        for (unsigned int const classId : classes.deletions)
            subscribers[classId].deletions.insert(broker);
    }
    return subscribers;
}
