// The records themselves, and how the observers of this process are told.
#include "reflect/notices/ClassRecords.h"

#include <algorithm>

#include "handler_threads/WithPermission.h"
#include "logging/Log.h"
#include "reflect/TreflectDeadline.h"
#include "reflect/TreflectObserver.h"
#include "reflect/TreflectServerObject.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/CallbackScope.h"
#include "reflect/broker/ContainErrors.h"
#include "reflect/broker/TreflectOrbParts.h"

namespace {

/** Newcomers are caught up with within moments, unless they do not answer. Of those that go on
 * telling of objects meanwhile no more are remembered, of all classes together, but for a few of
 * each. */
constexpr std::size_t kMostObjectsOfNewcomers = 65'536;
constexpr std::size_t kFew = 64;

}  // namespace

ClassRecords::MetaData& ClassRecords::getMetaData(unsigned int classId) {
    if (auto const found = records_.find(classId); found != records_.end())
        return found->second;
    UnknownClasses::Subscribers subscribers = unknown_.of(classId);
    MetaData& record = records_.try_emplace(classId, classId).first->second;
    record.creations.subscribers = std::move(subscribers.creations);
    record.deletions.subscribers = std::move(subscribers.deletions);
    unknown_.remove(classId);
    return record;
}

ClassRecords::Totals ClassRecords::totals() const {
    Totals totals{};
    totals.records = records_.size();
    auto const add = [](int& total, auto const& some) { total += static_cast<int>(some.size()); };
    for (auto const& entry : records_) {
        MetaData const& record = entry.second;
        add(totals.creationObservers, record.creations.observers);
        add(totals.deletionObservers, record.deletions.observers);
        add(totals.objects, record.objects);
        add(totals.remoteCreationObservers, record.creations.subscribers);
        add(totals.remoteDeletionObservers, record.deletions.subscribers);
    }
    for (auto const& [classId, subscribers] : unknown_.all()) {
        ++totals.records;
        add(totals.remoteCreationObservers, subscribers.creations);
        add(totals.remoteDeletionObservers, subscribers.deletions);
    }
    return totals;
}

std::vector<ClassRecords::Observers> ClassRecords::observers() const {
    std::vector<Observers> all;
    for (auto const& entry : records_) {
        MetaData const& record = entry.second;
        for (NoticeKind const kind : {NoticeKind::Creation, NoticeKind::Deletion}) {
            MetaData::Side const& side = record.side(kind);
            all.push_back({record.classId,
                           kind,
                           side.observers.size(),
                           {side.subscribers.begin(), side.subscribers.end()}});
        }
    }
    for (auto const& [classId, subscribers] : unknown_.all()) {
        auto const add = [&all, id = classId](NoticeKind kind, auto const& some) {
            all.push_back({id, kind, 0, {some.begin(), some.end()}});
        };
        add(NoticeKind::Creation, subscribers.creations);
        add(NoticeKind::Deletion, subscribers.deletions);
    }
    return all;
}

// ---- Telling observers of this process ---------------------------------------------------------

void ClassRecords::got(NoticeKind kind, unsigned int classId, TreflectObject const& object) {
    WithPermission const permission;
    auto const found = records_.find(classId);
    if (found == records_.end())
        return;
    MetaData& record = found->second;
    if (kind == NoticeKind::Creation)
        record.present(placeOf(object));
    else
        record.gone(placeOf(object));
    tellAll(kind, record, object, {});
}

void ClassRecords::gotElsewhere(unsigned int classId, TreflectObject const& object,
                                Transport::TerminationId const& sender, unsigned int since,
                                std::function<void()> const& answer) {
    auto const found = records_.find(classId);
    if (found == records_.end() || !exists(sender)) {
        answer();
        return;
    }
    Registration telling(*this, found->second, NoticeKind::Creation, nullptr, since);
    got(NoticeKind::Creation, classId, object);
    answer();
    tellOfMissedDeletions(found->second, telling);
}

// An exception of one observer is caught here, so that the other observers are called all the same.
void ClassRecords::tellOne(TreflectObserver& observer, TreflectObject const& object) {
    CallbackScope const restored;
    // Of whoever announces the object; what the observer does is not its business.
    TreflectDeadline::Suspension const unbounded;
    observer.setSource(&object);
    containErrors([&] { observer.update(); },
                  [&](char const* thrown) {
                      REFLECTORB_LOG(3, "REFLECT_orb", "ORB observer 0x%p threw%s",
                                     static_cast<void*>(&observer), thrown);
                  });
}

void ClassRecords::tellCreation(MetaData& record, TreflectObserver& observer,
                                TreflectObject const& object) {
    ObjectPlace const place = placeOf(object);
    if (brokerOf(place) != orb_.orbId())
        record.heardOf(place, object);
    auto& remembered = record.newcomersObjects;
    std::size_t const most = std::max(kFew, kMostObjectsOfNewcomers / records_.size());
    if (isNewcomer(brokerOf(place)) && remembered.size() < most) {
        MetaData::Told& told = remembered[place];
        told.object.share_(object);
        told.observers.insert(&observer);
    }
    tellOne(observer, object);
}

/** Whether a broker is there that has not been caught up with. */
bool ClassRecords::isNewcomer(TreflectOrbId const& broker) const {
    return broker.namespaceId() == orb_.orbId().namespaceId() && broker != orb_.orbId() &&
           caughtUpWith_.count(broker) == 0 && exists(orb_.convertId(broker));
}

// A callback may change the list, so it is walked anew after each. Those who are on their way into
// the list are told at the end of it.
void ClassRecords::tellAll(NoticeKind kind, MetaData& record, TreflectObject const& object,
                           std::set<TreflectObserver const*> told) {
    MetaData::Side& side = record.side(kind);
    ObjectPlace const place = placeOf(object);
    Notice notice(side.notices, place, std::move(told));
    while (TreflectObserver* const observer = side.nextFor(notice)) {
        if (kind == NoticeKind::Deletion) {
            notice.begin(*observer);
            tellOne(*observer, object);
        } else if (!mayBeThere(object)) {
            return;
        } else if (side.begin(place, *observer)) {
            tellCreation(record, *observer, object);
        }
    }
    for (Registration& registration : side.registrations)
        registration.noticed(object, notice);
}

// ---- Ends --------------------------------------------------------------------------------------

void ClassRecords::forget(Transport::TerminationId const& gone) {
    TreflectOrbId const broker = orb_.convertId(gone);
    subscriptions_.forget(gone);
    caughtUpWith_.erase(broker);
    unknown_.forget(broker);
    for (auto& entry : records_)
        entry.second.forget(broker);
}

template <class Forget>
void ClassRecords::forEachRecord(Forget const& forget) {
    for (auto const& instance : TreflectORB::singletonInstances_) {
        TreflectORB const* const orb = instance.load(std::memory_order_acquire);
        if (!orb)
            continue;
        for (auto& entry : orb->parts_->classes.records_)
            forget(entry.second);
    }
}

void ClassRecords::forgetEverywhere(TreflectServerObject const& object) {
    // There may be many classes to look through, and most objects say themselves when they go.
    if (object.announcements_ == 0)
        return;
    object.announcements_ = 0;
    forEachRecord([&](MetaData& record) {
        handlerthreads::assertPermission();
        record.forget(object);
    });
}

void ClassRecords::forgetEverywhere(TreflectObserver const& observer) {
    forEachRecord([&](MetaData& record) {
        handlerthreads::assertPermission();
        record.forgetDestroyed(observer);
    });
}

void ClassRecords::close() {
    for (auto& entry : records_)
        entry.second.forgetAll();
    unknown_ = UnknownClasses();
    subscriptions_.close();
}
