#include "reflect/broker/ObjectRegistry.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>

#include "ipprmi/TipprmiObjectSkeleton.h"
#include "logging/LineLimit.h"
#include "oswrap/OutOfMemory.h"
#include "reflect/broker/InternalIds.h"

namespace {

constexpr bool kAddressIsId = sizeof(void*) == sizeof(std::uint32_t);

std::uint32_t suggestedId(TipprmiObjectSkeleton const* object) {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(object));
}

/** Whether the object has been given an id before: until then it has the number of a namespace. A
 * new object where another one was does not inherit that one's id. */
bool hadId(TipprmiObjectSkeleton const& object) {
    constexpr unsigned int kHighestNamespace = 255;
    return object.getInternalOID() > kHighestNamespace;
}

std::uint32_t takeId(TipprmiObjectSkeleton const& object) OSW_REQUIRES_PERMISSION {
    std::uint32_t const suggested = suggestedId(&object);
    if (kAddressIsId)
        return suggested;
    InternalIds& ids = InternalIds::instance();
    std::uint32_t const former = object.getInternalOID();
    return hadId(object) && ids.takeAgain(former, &object) ? former : ids.take(suggested);
}

void giveIdBack(std::uint32_t id, TipprmiObjectSkeleton const* object) OSW_REQUIRES_PERMISSION {
    if (!kAddressIsId)
        InternalIds::instance().giveBack(id, object);
}

TipprmiOID ownOid(TipprmiObjectSkeleton const& object) {
    return object.hasOID() ? object.getOID()
                           : TipprmiOID(static_cast<char const*>(nullptr), NSID_UNDEF);
}

}  // namespace

std::size_t ObjectRegistry::HashOfText::operator()(TipprmiOID const& oid) const {
    return std::hash<std::string_view>()(oid.getIdString());
}

std::uint32_t ObjectRegistry::idOf(TipprmiObjectSkeleton const* object) const {
    std::uint32_t const suggested = suggestedId(object);
    if (find(suggested) == object)
        return suggested;
    auto const displaced = displaced_.find(object);
    return displaced == displaced_.end() ? 0 : displaced->second;
}

void ObjectRegistry::add(TipprmiObjectSkeleton& object) {
    if (idOf(&object) != 0)
        return;
    std::uint32_t const id = takeId(object);
    bool const entered = OSWrap::withMemory([&] {
        if (id != suggestedId(&object))
            displaced_.emplace(&object, id);
        addToIndex(id, byId_.insert_or_assign(id, Entry{&object, ownOid(object)}).first->second);
    });
    if (!entered) {
        byId_.erase(id);
        displaced_.erase(&object);
        giveIdBack(id, &object);
        throw std::bad_alloc();
    }
    object.setInternalOID(id);
}

void ObjectRegistry::remove(TipprmiObjectSkeleton const* object) {
    std::uint32_t const id = idOf(object);
    if (id == 0)
        return;
    auto const entry = byId_.find(id);
    removeFromIndex(id, entry->second);
    byId_.erase(entry);
    displaced_.erase(object);
    giveIdBack(id, object);
}

void ObjectRegistry::identifierChanged(TipprmiObjectSkeleton const& object) {
    std::uint32_t const id = idOf(&object);
    if (id == 0)
        return;
    Entry& entry = byId_.at(id);
    removeFromIndex(id, entry);
    entry.indexedAs = ownOid(object);
    addToIndex(id, entry);
}

void ObjectRegistry::addToIndex(std::uint32_t id, Entry const& entry) {
    if (!entry.indexedAs.getIdString())
        return;
    auto const [known, isNew] = byOid_.emplace(entry.indexedAs, id);
    if (isNew)
        return;
    std::uint32_t const higher = std::max(known->second, id);
    IdsInOrder& others = further_[entry.indexedAs];
    bool const inserted = OSWrap::withMemory(
        [&] { others.insert(std::lower_bound(others.begin(), others.end(), higher), higher); });
    if (!inserted) {
        if (others.empty())
            further_.erase(entry.indexedAs);
        throw std::bad_alloc();
    }
    known->second = std::min(known->second, id);
    static Logging::LineLimit limit;
    if (others.size() == 1)
        REFLECTORB_LOG_LIMITED(
            limit, 3, "REFLECT_orb",
            "identifier \"%s\" belongs to objects 0x%X and 0x%X: the former is found",
            entry.indexedAs.getIdString(), known->second, higher);
}

void ObjectRegistry::removeFromIndex(std::uint32_t id, Entry const& entry) {
    if (!entry.indexedAs.getIdString())
        return;
    auto const known = byOid_.find(entry.indexedAs);
    if (known == byOid_.end())
        return;  // there was no memory to enter it
    auto const others = further_.empty() ? further_.end() : further_.find(entry.indexedAs);
    if (others == further_.end()) {
        if (known->second == id)
            byOid_.erase(known);
        return;
    }
    IdsInOrder& ids = others->second;
    auto gone = ids.begin();
    if (known->second == id) {
        known->second = *gone;
    } else {
        gone = std::lower_bound(ids.begin(), ids.end(), id);
        if (gone == ids.end() || *gone != id)
            return;
    }
    ids.erase(gone);
    if (ids.empty())
        further_.erase(others);
}

TipprmiObjectSkeleton* ObjectRegistry::find(unsigned int ioid) const {
    auto const found = byId_.find(ioid);
    return found == byId_.end() ? nullptr : found->second.object;
}

TipprmiObjectSkeleton* ObjectRegistry::find(TipprmiOID const& oid) const {
    if (!oid.getIdString())
        return nullptr;
    auto const found = byOid_.find(oid);
    return found == byOid_.end() ? nullptr : find(found->second);
}

std::vector<TipprmiObjectSkeleton*> ObjectRegistry::all() const {
    std::vector<TipprmiObjectSkeleton*> objects;
    objects.reserve(byId_.size());
    for (auto const& entry : byId_)
        objects.push_back(entry.second.object);
    return objects;
}

void ObjectRegistry::disown() {
    for (auto const& [id, entry] : byId_) {
        entry.object->setORB(nullptr);
        giveIdBack(id, entry.object);
    }
    byId_.clear();
    displaced_.clear();
    byOid_.clear();
    further_.clear();
}
