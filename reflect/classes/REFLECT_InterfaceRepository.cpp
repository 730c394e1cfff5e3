#include "reflect/InterfaceRepository.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include "logging/Log.h"
#include "oswrap/Lock.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/broker/BrokerLifecycle.h"

namespace {

/** The program or shared object that an object is a static object of; null when it is none. Takes
 * no lock of the loader, which may be held while that closes a shared object. */
void const* homeOf(TreflectMetaObject* metaObject) {
    dl_find_object found{};
    return _dl_find_object(metaObject, &found) == 0 ? found.dlfo_map_start : nullptr;
}

}  // namespace

// Meta objects are static objects of other files, built before this file's own and destroyed after
// them: hence made when first asked for, and never destroyed.
InterfaceRepository* InterfaceRepository::instance() {
    static InterfaceRepository* const repository = new InterfaceRepository;
    return repository;
}

bool InterfaceRepository::registerInterface(TreflectMetaObject* metaObject) {
    OSWrap::Lock<> const lock(mutex_);
    interfaces_.emplace(metaObject->getClassId(), metaObject);
    return true;
}

bool InterfaceRepository::unregisterInterface(TreflectMetaObject* metaObject) {
    OSWrap::Lock<> const lock(mutex_);
    interfaces_.erase(metaObject->getClassId());
    return true;
}

TreflectMetaObject* InterfaceRepository::findInterface(unsigned int classId) const {
    TreflectMetaObject* const found = findInterface_(classId);
    if (!found)
        REFLECTORB_LOG(3, "REFLECT_InterfaceRepository",
                       "InterfaceRepository::findInterface(0x%X) Meta-information CANNOT BE FOUND",
                       classId);
    return found;
}

TreflectMetaObject* InterfaceRepository::findInterface_(unsigned int classId) const {
    instance()->keepForBrokers_();
    TreflectMetaObject* found = nullptr;
    {
        OSWrap::Lock<> const lock(mutex_);
        if (auto const entry = interfaces_.find(classId); entry != interfaces_.end())
            found = entry->second;
    }
    if (found)
        found->completeMetaInformation();
    return found;
}

std::vector<unsigned int> InterfaceRepository::getIfIds() const {
    OSWrap::Lock<> const lock(mutex_);
    std::vector<unsigned int> ids;
    for (auto const& entry : interfaces_)
        ids.push_back(entry.first);
    return ids;
}

// ---- Meta objects that come and go -------------------------------------------------------------

bool InterfaceRepository::isBuilt(TreflectMetaObject const* metaObject) const {
    OSWrap::Lock<> const lock(mutex_);
    return std::find(built_.begin(), built_.end(), metaObject) != built_.end();
}

void InterfaceRepository::built(TreflectMetaObject* metaObject) {
    if (metaObject->listed_)
        tellSharedId(*metaObject);
    OSWrap::Lock<> const lock(mutex_);
    built_.push_back(metaObject);
    unkept_ = true;
    auto const waiting = awaited_.equal_range(metaObject);
    for (auto derived = waiting.first; derived != waiting.second; ++derived)
        derived->second->linkTo(metaObject);
    awaited_.erase(waiting.first, waiting.second);
}

// A class of one name comes several times when programs and shared objects each have its table.
void InterfaceRepository::tellSharedId(TreflectMetaObject const& newcomer) const {
    std::string known;
    {
        OSWrap::Lock<> const lock(mutex_);
        auto const entry = interfaces_.find(newcomer.classId_);
        if (entry == interfaces_.end() || entry->second->name_ == newcomer.name_)
            return;
        known = entry->second->name_;
    }
    REFLECTORB_LOG(3, "REFLECT_InterfaceRepository",
                   "classes \"%s\" and \"%s\" have one class id, 0x%X: the latter is not found",
                   known.c_str(), newcomer.name_.c_str(), newcomer.classId_);
}

// Static objects of several files are built in no fixed order.
void InterfaceRepository::link(TreflectMetaObject* derived, TreflectMetaObject* base) {
    OSWrap::Lock<> const lock(mutex_);
    if (std::find(built_.begin(), built_.end(), base) != built_.end())
        derived->linkTo(base);
    else
        awaited_.emplace(base, derived);
}

void InterfaceRepository::destroyed(TreflectMetaObject* metaObject) {
    OSWrap::Lock<> const lock(mutex_);
    built_.erase(std::remove(built_.begin(), built_.end(), metaObject), built_.end());
    for (auto waiting = awaited_.begin(); waiting != awaited_.end();)
        waiting = waiting->second == metaObject ? awaited_.erase(waiting) : std::next(waiting);
    for (TreflectMetaObject* const other : built_)
        other->forget(*metaObject);
    if (TreflectMetaObject* const successor = successorOf(metaObject))
        interfaces_.emplace(successor->getClassId(), successor);
}

// Meta objects of one program that have the same class id are a mistake, and none follows another.
TreflectMetaObject* InterfaceRepository::successorOf(TreflectMetaObject* metaObject) const {
    auto const isSameClass = [metaObject](TreflectMetaObject const* other) {
        return other->listed_ && other->getClassId() == metaObject->getClassId();
    };
    auto const other = std::find_if(built_.begin(), built_.end(), isSameClass);
    if (other == built_.end())
        return nullptr;
    void const* const home = homeOf(metaObject);
    return home && home != homeOf(*other) ? *other : nullptr;
}

// Whoever is built later is destroyed earlier: a broker that is older than a meta object, and whose
// workers may use it, must go first all the same.
void InterfaceRepository::keepForBrokers_() {
    if (unkept_ && BrokerLifecycle::instance().hadBrokers() && unkept_.exchange(false))
        std::atexit([] { BrokerLifecycle::instance().deleteAllAtExit(); });
}
