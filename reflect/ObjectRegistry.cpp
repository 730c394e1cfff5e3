#include "reflect/ObjectRegistry.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>

#include "ipprmi/TipprmiObjectSkeleton.h"
#include "reflect/InternalIds.h"

namespace {

constexpr bool kAddressIsId = sizeof(void*) == sizeof(std::uint32_t);

std::uint32_t takeId(TipprmiObjectSkeleton const& object) {
    auto const address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&object));
    return kAddressIsId ? address : InternalIds::instance().take(address);
}

void giveIdBack(std::uint32_t id) {
    if (!kAddressIsId)
        InternalIds::instance().giveBack(id);
}

TipprmiOID ownOid(TipprmiObjectSkeleton const& object) {
    return object.hasOID() ? object.getOID()
                           : TipprmiOID(static_cast<char const*>(nullptr), NSID_UNDEF);
}

}  // namespace

std::size_t ObjectRegistry::HashOfText::operator()(TipprmiOID const& oid) const {
    return std::hash<std::string_view>()(oid.getIdString());
}

void ObjectRegistry::add(TipprmiObjectSkeleton& object) {
    if (idOf_.count(&object) != 0)
        return;
    std::uint32_t const id = takeId(object);
    object.setInternalOID(id);
    idOf_.emplace(&object, id);
    Entry& entry = byId_.insert_or_assign(id, Entry{&object, ownOid(object)}).first->second;
    addToIndex(id, entry);
}

void ObjectRegistry::remove(TipprmiObjectSkeleton const* object) {
    auto const found = idOf_.find(object);
    if (found == idOf_.end())
        return;
    std::uint32_t const id = found->second;
    auto const entry = byId_.find(id);
    removeFromIndex(id, entry->second);
    byId_.erase(entry);
    idOf_.erase(found);
    giveIdBack(id);
}

void ObjectRegistry::identifierChanged(TipprmiObjectSkeleton const& object) {
    auto const found = idOf_.find(&object);
    if (found == idOf_.end())
        return;
    Entry& entry = byId_.at(found->second);
    removeFromIndex(found->second, entry);
    entry.indexedAs = ownOid(object);
    addToIndex(found->second, entry);
}

void ObjectRegistry::addToIndex(std::uint32_t id, Entry& entry) {
    if (!entry.indexedAs.getIdString())
        return;
    IdsInOrder& ids = byOid_[entry.indexedAs];
    ids.insert(std::lower_bound(ids.begin(), ids.end(), id), id);
}

void ObjectRegistry::removeFromIndex(std::uint32_t id, Entry const& entry) {
    if (!entry.indexedAs.getIdString())
        return;
    auto const found = byOid_.find(entry.indexedAs);
    IdsInOrder& ids = found->second;
    ids.erase(std::lower_bound(ids.begin(), ids.end(), id));
    if (ids.empty())
        byOid_.erase(found);
}

TipprmiObjectSkeleton* ObjectRegistry::find(unsigned int ioid) const {
    auto const found = byId_.find(ioid);
    return found == byId_.end() ? nullptr : found->second.object;
}

TipprmiObjectSkeleton* ObjectRegistry::find(TipprmiOID const& oid) const {
    if (!oid.getIdString())
        return nullptr;
    auto const found = byOid_.find(oid);
    return found == byOid_.end() ? nullptr : find(found->second.front());
}

void ObjectRegistry::disown() {
    for (auto const& [id, entry] : byId_) {
        entry.object->setORB(nullptr);
        giveIdBack(id);
    }
    byId_.clear();
    idOf_.clear();
    byOid_.clear();
}
