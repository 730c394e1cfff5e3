#include "reflect/notices/Registration.h"

#include "reflect/notices/ClassRecords.h"

namespace {

/** A registration lasts for moments, unless a broker does not answer. */
constexpr std::size_t kMostObjects = 65'536;

/** Remembers a place, as long as there is room. */
void remember(std::set<ObjectPlace>& places, ObjectPlace const& place) {
    if (places.size() < kMostObjects)
        places.insert(place);
}

}  // namespace

Registration::Registration(ClassRecords& records, MetaData& record, NoticeKind kind,
                           TreflectObserver* observer)
    : Registration(records, record, kind, observer, records.subscriptions().deletions()) {}

// What it tells comes on top of what the observer has been told in the course of others.
Registration::Registration(ClassRecords& records, MetaData& record, NoticeKind kind,
                           TreflectObserver* observer, unsigned int since)
    : records_(records), record_(record), kind_(kind), observer_(observer), since_(since) {
    UnderWay<Registration>& underWay = record_.side(kind_).registrations;
    for (Registration const& other : underWay) {
        if (observer && other.isOf(*observer))
            told_.insert(other.told_.begin(), other.told_.end());
    }
    underWay.push_back(*this);
}

void Registration::noticed(TreflectObject const& object, Notice const& notice) {
    if (notice.ended())
        return;
    if (ended() || notice.isToldTo(observer_))
        remember(told_, notice.place());
    else if (kept_.size() < kMostObjects)
        kept_.emplace_back(notice.place(), TreflectObject()).second.share_(object);
}

void Registration::gone(ObjectPlace const& place) {
    remember(gone_, place);
    told_.erase(place);
    kept_.remove_if([&](auto const& kept) { return kept.first == place; });
}

// What is being told as deleted may still be in the answer: it has not been answered to its broker.
void Registration::asks(TreflectOrbId const& broker) {
    eraseThoseAt(broker, gone_);
    for (Notice const& notice : record_.deletions.notices)
        remember(gone_, notice.place());
}

bool Registration::isNews(TreflectObject const& object) {
    ObjectPlace const place = placeOf(object);
    if (!mayBeThere(object) || gone_.count(place) != 0 || told_.count(place) != 0)
        return false;
    remember(told_, place);
    return true;
}

// A notice that is being told at the same time leaves the observer out.
void Registration::tell(TreflectObject const& object) {
    if (!ended() && isNews(object) && record_.creations.begin(placeOf(object), *observer_))
        records_.tellCreation(record_, *observer_, object);
}

// Each notice that was kept is told, but for creations of objects that were told of as existing.
void Registration::enter() {
    if (ended())
        return;
    record_.side(kind_).observers.push_back(observer_);
    while (!kept_.empty() && !ended()) {
        TreflectObject object;
        object.share_(kept_.front().second);
        kept_.pop_front();
        if (kind_ == NoticeKind::Creation)
            tell(object);
        else
            ClassRecords::tellOne(*observer_, object);
    }
}

void Registration::heardOf(ObjectPlace const& place, TreflectObject const& object) {
    if (heard_.size() < kMostObjects)
        heard_[place].share_(object);
}

std::set<TreflectOrbId> Registration::mayHaveMissedDeletionsAt() const {
    std::set<TreflectOrbId> brokers;
    if (record_.lastDeletionSubscription <= since_)
        return brokers;
    for (auto const& heard : heard_)
        brokers.insert(brokerOf(heard.first));
    return brokers;
}

std::set<ObjectPlace> Registration::heardAt(TreflectOrbId const& broker) const {
    std::set<ObjectPlace> places;
    for (auto heard = heard_.lower_bound(firstPlaceAt(broker));
         heard != heard_.end() && brokerOf(heard->first) == broker; ++heard)
        places.insert(heard->first);
    for (Notice const& notice : record_.creations.notices)
        places.erase(notice.place());
    return places;
}

TreflectObject const* Registration::heard(ObjectPlace const& place) const {
    auto const found = heard_.find(place);
    return found == heard_.end() ? nullptr : &found->second;
}
