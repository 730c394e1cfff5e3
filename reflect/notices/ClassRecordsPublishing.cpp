// The publisher's side: objects of this process, and the brokers that subscribed here.
#include "reflect/TreflectServerObject.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/TreflectOrbParts.h"
#include "reflect/notices/ClassRecords.h"

namespace {

/** A handle of our own: the object may be destroyed while somebody is waited for. */
void shareHandle(TreflectServerObject const& object, TreflectObject& handle) {
    handle.share_(*object.getClient());
}

}  // namespace

// ---- Notices -----------------------------------------------------------------------------------

/** Tells the subscribers that are due, one after the other. One that is not reached has to
 * subscribe again. What another thread tells of the object from now on leaves behind this, and so
 * does what it says exists. */
void ClassRecords::publish(NoticeKind kind, MetaData& record, TreflectObject const& object,
                           Publication& publication) {
    std::vector<TreflectOrbId> unreached;
    TreflectOrbId subscriber;
    while (publication.next(subscriber)) {
        BrokerRequest notice(
            orb_, kind == NoticeKind::Creation ? TreflectMessage::tOCN : TreflectMessage::tODN);
        notice.arguments() << record.classId << static_cast<TipprmiObjectClient const&>(object);
        if (!notice.sendAheadOfOthers(orb_.convertId(subscriber)))
            unreached.push_back(subscriber);
    }
    for (TreflectOrbId const& gone : unreached)
        record.side(kind).subscribers.erase(gone);
}

// Those who ask from now on what exists are told of the object, so it is not published to them.
void ClassRecords::publishCreation(unsigned int classId, TreflectServerObject const& object) {
    TreflectObject handle;
    shareHandle(object, handle);
    MetaData& record = getMetaData(classId);
    if (record.objects.insert(&object).second)
        ++object.announcements_;
    Publication publication(record.creations.publications, object);
    publication.addDue(record.creations.subscribers);
    got(NoticeKind::Creation, classId, handle);
    publish(NoticeKind::Creation, record, handle, publication);
}

// Those who subscribe meanwhile may have been told that the object exists.
void ClassRecords::publishDeletion(unsigned int classId, TreflectServerObject const& object) {
    TreflectObject handle;
    shareHandle(object, handle);
    MetaData& record = getMetaData(classId);
    record.endCreation(object);
    Publication publication(record.deletions.publications, object);
    got(NoticeKind::Deletion, classId, handle);
    while (publication.addDue(record.deletions.subscribers))
        publish(NoticeKind::Deletion, record, handle, publication);
    // Another object may have its address by now.
    if (handle.getServer() == &object && record.objects.erase(&object) != 0)
        --object.announcements_;
}

// ---- Subscribers -------------------------------------------------------------------------------

// Who does not ask what exists gets the notices that have not been sent to anybody yet.
void ClassRecords::addSubscriber(NoticeKind kind, unsigned int classId, TreflectOrbId const& broker,
                                 TipprmiSequence<TreflectObject, 0u>* existing) {
    auto const found = records_.find(classId);
    if (found == records_.end()) {
        if (existing)
            existing->setLength(0);
        addToUnknown(kind, classId, broker);
        return;
    }
    MetaData& record = found->second;
    bool const isNew = record.side(kind).subscribers.insert(broker).second;
    if (existing)
        listExisting(record, broker, *existing);
    else if (isNew && kind == NoticeKind::Creation)
        record.subscribed(broker);
}

void ClassRecords::addToUnknown(NoticeKind kind, unsigned int classId,
                                TreflectOrbId const& broker) {
    if (unknown_.add(kind, classId, broker))
        return;
    REFLECTORB_LOG_LIMITED(
        orb_.parts_->limits.tooManyClasses, 3, "REFLECT_orb",
        "ORB 0x%08X does not tell ORB 0x%08X of class 0x%X: it has subscribed to "
        "%zu classes that are unknown here",
        orb_.orbId().value(), broker.value(), classId, UnknownClasses::kMostOfBroker);
}

void ClassRecords::listExisting(MetaData const& record, TreflectOrbId const& broker,
                                TipprmiSequence<TreflectObject, 0u>& existing) {
    std::vector<TreflectServerObject const*> listed;
    for (TreflectServerObject const* const object : record.objects) {
        if (!record.isHiddenFrom(broker, object))
            listed.push_back(object);
    }
    existing.setLength(static_cast<unsigned int>(listed.size()));
    unsigned int at = 0;
    for (TreflectServerObject const* const object : listed)
        existing[at++].share_(*object->getClient());
}

void ClassRecords::removeSubscriber(unsigned int classId, TreflectOrbId const& broker) {
    auto const found = records_.find(classId);
    if (found != records_.end())
        found->second.cancelled(broker);
    else
        unknown_.remove(classId, broker);
}
