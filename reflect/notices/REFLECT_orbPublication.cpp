// The publisher's side: objects of this process, and the brokers that subscribed here.
#include <algorithm>
#include <iterator>
#include <utility>

#include "reflect/TreflectServerObject.h"
#include "reflect/broker/TreflectOrbParts.h"

// ---- Notices under way --------------------------------------------------------------------------

bool TreflectORB::Publication::addDue(Subscribers const& subscribers) {
    std::set_difference(subscribers.begin(), subscribers.end(), told_.begin(), told_.end(),
                        std::inserter(due_, due_.end()));
    return !due_.empty();
}

bool TreflectORB::Publication::next(TreflectOrbId& subscriber) {
    sending_ = true;
    if (std::exchange(waiting_, false))
        told_.insert(current_);
    if (due_.empty())
        return false;
    subscriber = current_ = *due_.begin();
    due_.erase(due_.begin());
    deliveriesBefore_ = thread_.deliveries();
    waiting_ = true;
    return true;
}

/** Tells the subscribers that are due, one after the other. One that is not reached has to
 * subscribe again. What another thread tells of the object from now on leaves behind this, and so
 * does what it says exists. */
void TreflectORB::publish_(Kind kind, unsigned int classId, TreflectObject const& object,
                           Publication& publication) {
    std::vector<TreflectOrbId> unreached;
    TreflectOrbId subscriber;
    while (publication.next(subscriber)) {
        TipprmiStream request(allocateRequest(Parts::kRequestSize), true);
        request.msg().type(kind == Kind::Creation ? TreflectMessage::tOCN : TreflectMessage::tODN);
        request << classId << static_cast<TipprmiObjectClient const&>(object);
        TipprmiStream response(allocateResponse(request.msg(), Parts::kResponseSize), true);
        if (!forward_(convertId(subscriber), true, request.msg(), response, GiveWay::AfterIssuing))
            unreached.push_back(subscriber);
    }
    for (TreflectOrbId const& gone : unreached)
        getMetaData(classId).side(kind).subscribers.erase(gone);
}

// Those who ask from now on what exists are told of the object, so it is not published to them.
bool TreflectORB::notifyCreation(unsigned int classId, TreflectServerObject const& object) {
    checkHandlerState();
    handlerthreads::trustPermission();
    // A handle of our own: the object may be destroyed while somebody is waited for.
    TreflectObject handle;
    handle.share_(*object.getClient());
    MetaData& record = getMetaData(classId);
    if (record.objects.insert(&object).second)
        ++object.announcements_;
    Publication publication(record.creations.publications, object);
    publication.addDue(record.creations.subscribers);
    gotCreation(classId, handle);
    publish_(Kind::Creation, classId, handle, publication);
    return true;
}

// Those who subscribe meanwhile may have been told that the object exists.
bool TreflectORB::notifyDeletion(unsigned int classId, TreflectServerObject const& object) {
    handlerthreads::trustPermission();
    TreflectObject handle;
    handle.share_(*object.getClient());
    MetaData& record = getMetaData(classId);
    for (Publication* const creation : record.creations.publications) {
        if (creation->isOf(&object))
            creation->end();
    }
    Publication publication(record.deletions.publications, object);
    gotDeletion(classId, handle);
    while (publication.addDue(record.deletions.subscribers))
        publish_(Kind::Deletion, classId, handle, publication);
    // Another object may have its address by now.
    if (handle.getServer() == &object && record.objects.erase(&object) != 0)
        --object.announcements_;
    return true;
}

// ---- Subscribers --------------------------------------------------------------------------------

void TreflectORB::addRemoteCreationObserver(unsigned int const& classId, TreflectOrbId const& orb,
                                            TipprmiSequence<TreflectObject, 0u>* existing) {
    MetaData& record = getMetaData(classId);
    bool const isNew = record.creations.subscribers.insert(orb).second;
    if (existing) {
        listExisting_(record, orb, *existing);
    } else if (isNew) {
        for (Publication* const publication : record.creations.publications)
            publication->subscribed(orb);
    }
}

bool TreflectORB::MetaData::isEnding(TreflectServerObject const* object) const {
    for (Publication const* const deletion : deletions.publications) {
        if (deletion->isOf(object))
            return true;
    }
    return false;
}

bool TreflectORB::MetaData::isHiddenFrom(TreflectOrbId const& broker,
                                         TreflectServerObject const* object) const {
    for (Publication const* const creation : creations.publications) {
        if (creation->isOf(object) && creation->isDue(broker))
            return true;
    }
    for (Publication const* const deletion : deletions.publications) {
        if (deletion->isOf(object) && deletion->isAnsweredBy(broker))
            return true;
    }
    return false;
}

void TreflectORB::listExisting_(MetaData const& record, TreflectOrbId const& orb,
                                TipprmiSequence<TreflectObject, 0u>& existing) {
    std::vector<TreflectServerObject const*> listed;
    for (TreflectServerObject const* const object : record.objects) {
        if (!record.isHiddenFrom(orb, object))
            listed.push_back(object);
    }
    existing.setLength(static_cast<unsigned int>(listed.size()));
    unsigned int at = 0;
    for (TreflectServerObject const* const object : listed)
        existing[at++].share_(*object->getClient());
}

void TreflectORB::addRemoteDeletionObserver(unsigned int const& classId, TreflectOrbId const& orb) {
    getMetaData(classId).deletions.subscribers.insert(orb);
}

// A cancellation of one kind ends both.
void TreflectORB::removeRemoteObserver(unsigned int const& classId, TreflectOrbId const& orb) {
    auto const found = parts_->classes.find(classId);
    if (found == parts_->classes.end())
        return;
    MetaData& record = found->second;
    record.creations.subscribers.erase(orb);
    record.deletions.subscribers.erase(orb);
    for (Publication* const publication : record.creations.publications)
        publication->cancelled(orb);
}

void TreflectORB::forgetBroker_(TreflectOrbId const& orb) {
    parts_->caughtUpWith.erase(orb);
    for (auto& entry : parts_->classes)
        entry.second.forget(orb);
}

void TreflectORB::forgetObject_(TreflectServerObject const& object) {
    // There may be many classes to look through, and most objects say themselves when they go.
    if (object.announcements_ == 0)
        return;
    object.announcements_ = 0;
    for (auto const& instance : singletonInstances_) {
        TreflectORB const* const orb = instance.load(std::memory_order_acquire);
        if (!orb)
            continue;
        for (auto& entry : orb->parts_->classes)
            entry.second.forget(object);
    }
}
