// The broker's face to its class records: observers of objects, subscriptions, and notices.
#include "reflect/broker/TreflectOrbParts.h"

bool TreflectORB::observeCreations(unsigned int const& classId, TreflectObserver& observer,
                                   bool plusExisting) {
    return parts_->classes.observe(NoticeKind::Creation, classId, observer, plusExisting);
}

bool TreflectORB::observeDeletions(unsigned int const& classId, TreflectObserver& observer) {
    return parts_->classes.observe(NoticeKind::Deletion, classId, observer, false);
}

void TreflectORB::removeObserver(unsigned int const& classId, TreflectObserver& observer) {
    parts_->classes.removeObserver(classId, observer);
}

void TreflectORB::endCreations(unsigned int classId, TreflectObserver& observer) {
    parts_->classes.endObserving(NoticeKind::Creation, classId, observer);
}

void TreflectORB::endDeletions(unsigned int classId, TreflectObserver& observer) {
    parts_->classes.endObserving(NoticeKind::Deletion, classId, observer);
}

bool TreflectORB::notifyCreation(unsigned int classId, TreflectServerObject const& object) {
    checkHandlerState();
    handlerthreads::trustPermission();
    parts_->classes.publishCreation(classId, object);
    return true;
}

bool TreflectORB::notifyDeletion(unsigned int classId, TreflectServerObject const& object) {
    handlerthreads::trustPermission();
    parts_->classes.publishDeletion(classId, object);
    return true;
}

// ---- Their steps -------------------------------------------------------------------------------

void TreflectORB::gotCreation(unsigned int const& classId, TreflectObject const& object) {
    parts_->classes.got(NoticeKind::Creation, classId, object);
}

void TreflectORB::gotDeletion(unsigned int const& classId, TreflectObject const& object) {
    parts_->classes.got(NoticeKind::Deletion, classId, object);
}

void TreflectORB::registerForOCN(unsigned int classId, std::vector<TreflectObject>* existing,
                                 TreflectOrbId const* only) {
    parts_->classes.subscribe(NoticeKind::Creation, classId, existing, only);
}

void TreflectORB::registerForODN(unsigned int classId, TreflectOrbId const* only) {
    parts_->classes.subscribe(NoticeKind::Deletion, classId, nullptr, only);
}

void TreflectORB::unregisterFromOCN(unsigned int classId) {
    parts_->classes.subscriptions().cancelAtAll(NoticeKind::Creation, classId);
}

void TreflectORB::unregisterFromODN(unsigned int classId) {
    parts_->classes.subscriptions().cancelAtAll(NoticeKind::Deletion, classId);
}

void TreflectORB::addRemoteCreationObserver(unsigned int const& classId, TreflectOrbId const& orb,
                                            TipprmiSequence<TreflectObject, 0u>* existing) {
    parts_->classes.addSubscriber(NoticeKind::Creation, classId, orb, existing);
}

void TreflectORB::addRemoteDeletionObserver(unsigned int const& classId, TreflectOrbId const& orb) {
    parts_->classes.addSubscriber(NoticeKind::Deletion, classId, orb, nullptr);
}

void TreflectORB::removeRemoteObserver(unsigned int const& classId, TreflectOrbId const& orb) {
    parts_->classes.removeSubscriber(classId, orb);
}
