// Who is told when objects of a class are created and deleted.
#include <algorithm>
#include <set>

#include "handler_threads/TreflectHandlerState.h"
#include "handler_threads/TreflectRestoreHandlerState.h"
#include "reflect/TreflectObserver.h"
#include "reflect/TreflectOrbParts.h"

namespace {

void tellOne(TreflectObserver& observer, TreflectObject const& object) {
    observer.setSource(&object);
    TreflectRestoreHandlerState const restored;
    observer.update();
}

void erase(std::vector<TreflectObserver*>& observers, TreflectObserver const* observer) {
    observers.erase(std::remove(observers.begin(), observers.end(), observer), observers.end());
}

}  // namespace

// ---- Observers of this process -----------------------------------------------------------------

// A callback may change the lists, so each walk begins anew after one.
void TreflectORB::tell_(unsigned int classId, Observers ClassRecord::*observers,
                        TreflectObject const& object) {
    TreflectHandlerState const handlerState(true);
    std::set<TreflectObserver*> told;
    for (;;) {
        Observers const& list = parts_->classes[classId].*observers;
        auto const next = std::find_if(list.begin(), list.end(), [&](TreflectObserver* observer) {
            return told.count(observer) == 0;
        });
        if (next == list.end())
            return;
        TreflectObserver& observer = **next;
        told.insert(&observer);
        tellOne(observer, object);
    }
}

void TreflectORB::gotCreation(unsigned int const& classId, TreflectObject const& object) {
    tell_(classId, &ClassRecord::creationObservers, object);
}

void TreflectORB::gotDeletion(unsigned int const& classId, TreflectObject const& object) {
    tell_(classId, &ClassRecord::deletionObservers, object);
}

bool TreflectORB::observeCreations(unsigned int const& classId, TreflectObserver& observer,
                                   bool plusExisting) {
    TreflectHandlerState const handlerState(true);
    std::set<TreflectServerObject const*> told;
    for (bool more = plusExisting; more;) {
        std::set<TreflectServerObject const*> const& objects = parts_->classes[classId].objects;
        auto const next = std::find_if(
            objects.begin(), objects.end(),
            [&](TreflectServerObject const* object) { return told.count(object) == 0; });
        more = next != objects.end();
        if (more) {
            told.insert(*next);
            TreflectObject const object(*(*next)->getClient());
            tellOne(observer, object);
        }
    }
    parts_->classes[classId].creationObservers.push_back(&observer);
    return true;
}

bool TreflectORB::observeDeletions(unsigned int const& classId, TreflectObserver& observer) {
    TreflectHandlerState const handlerState(true);
    parts_->classes[classId].deletionObservers.push_back(&observer);
    return true;
}

void TreflectORB::removeObserver(unsigned int const& classId, TreflectObserver& observer) {
    TreflectHandlerState const handlerState(true);
    ClassRecord& record = parts_->classes[classId];
    erase(record.creationObservers, &observer);
    erase(record.deletionObservers, &observer);
}

// ---- Objects of this process -------------------------------------------------------------------

bool TreflectORB::notifyCreation(unsigned int classId, TreflectServerObject const& object) {
    checkHandlerState();
    parts_->classes[classId].objects.insert(&object);
    gotCreation(classId, *object.getClient());
    return true;
}

bool TreflectORB::notifyDeletion(unsigned int classId, TreflectServerObject const& object) {
    gotDeletion(classId, *object.getClient());
    parts_->classes[classId].objects.erase(&object);
    return true;
}

void TreflectORB::forgetObject_(TreflectServerObject const& object) {
    for (auto& entry : parts_->classes)
        entry.second.objects.erase(&object);
}

void TreflectORB::forgetObserver_(TreflectObserver const& observer) {
    for (auto const& instance : singletonInstances_) {
        TreflectORB* const orb = instance.load(std::memory_order_acquire);
        if (!orb)
            continue;
        for (auto& entry : orb->parts_->classes) {
            erase(entry.second.creationObservers, &observer);
            erase(entry.second.deletionObservers, &observer);
        }
    }
}
