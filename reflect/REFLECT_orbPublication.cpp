// The publisher's side: objects of this process, and the brokers that subscribed here.
#include <algorithm>
#include <iterator>

#include "handler_threads/TreflectHandlerState.h"
#include "reflect/TreflectOrbParts.h"
#include "reflect/TreflectServerObject.h"

bool TreflectORB::notifyCreation(unsigned int classId, TreflectServerObject const& object) {
    checkHandlerState();
    // A handle of our own: the object may be destroyed while somebody is waited for.
    TreflectObject handle;
    handle.share_(*object.getClient());
    MetaData& record = getMetaData(classId);
    if (record.objects.insert(&object).second)
        ++object.announcements_;
    gotCreation(classId, handle);
    std::set<TreflectOrbId> told;
    publish_(TreflectMessage::tOCN, classId, handle, record.remoteCreationObservers, told);
    return true;
}

// Who subscribes meanwhile has been told that the object exists.
bool TreflectORB::notifyDeletion(unsigned int classId, TreflectServerObject const& object) {
    TreflectObject handle;
    handle.share_(*object.getClient());
    MetaData& record = getMetaData(classId);
    gotDeletion(classId, handle);
    std::set<TreflectOrbId> told;
    while (publish_(TreflectMessage::tODN, classId, handle, record.remoteDeletionObservers, told)) {
    }
    // Another object may have its address by now.
    if (handle.getServer() == &object && record.objects.erase(&object) != 0)
        --object.announcements_;
    return true;
}

/** Tells the subscribers that have not been told, one after the other; false when there are none.
 * One that is not reached has to subscribe again. */
bool TreflectORB::publish_(TreflectMessage::type_t type, unsigned int classId,
                           TreflectObject const& object, std::set<TreflectOrbId>& subscribers,
                           std::set<TreflectOrbId>& told) {
    std::vector<TreflectOrbId> targets;
    std::set_difference(subscribers.begin(), subscribers.end(), told.begin(), told.end(),
                        std::back_inserter(targets));
    std::vector<TreflectOrbId> unreached;
    for (TreflectOrbId const& subscriber : targets) {
        TipprmiStream request(allocateRequest(Parts::kRequestSize), true);
        request.msg().type(type);
        request << classId << static_cast<TipprmiObjectClient const&>(object);
        TipprmiStream response(allocateResponse(request.msg(), Parts::kResponseSize), true);
        if (!forwardMsg_(convertId(subscriber), true, request.msg(), response))
            unreached.push_back(subscriber);
    }
    for (TreflectOrbId const& subscriber : unreached)
        subscribers.erase(subscriber);
    told.insert(targets.begin(), targets.end());
    return !targets.empty();
}

void TreflectORB::addRemoteCreationObserver(unsigned int const& classId, TreflectOrbId const& orb,
                                            TipprmiSequence<TreflectObject, 0u>* existing) {
    MetaData& record = getMetaData(classId);
    record.remoteCreationObservers.insert(orb);
    if (!existing)
        return;
    existing->setLength(static_cast<unsigned int>(record.objects.size()));
    unsigned int at = 0;
    for (TreflectServerObject const* const object : record.objects)
        (*existing)[at++].share_(*object->getClient());
}

void TreflectORB::addRemoteDeletionObserver(unsigned int const& classId, TreflectOrbId const& orb) {
    getMetaData(classId).remoteDeletionObservers.insert(orb);
}

// A cancellation of one kind ends both.
void TreflectORB::removeRemoteObserver(unsigned int const& classId, TreflectOrbId const& orb) {
    auto const record = parts_->classes.find(classId);
    if (record == parts_->classes.end())
        return;
    record->second.remoteCreationObservers.erase(orb);
    record->second.remoteDeletionObservers.erase(orb);
}

void TreflectORB::forgetBroker_(TreflectOrbId const& orb) {
    for (auto& entry : parts_->classes) {
        entry.second.remoteCreationObservers.erase(orb);
        entry.second.remoteDeletionObservers.erase(orb);
        entry.second.creationsAt.erase(orb);
        entry.second.deletionsAt.erase(orb);
    }
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
            entry.second.objects.erase(&object);
    }
}
