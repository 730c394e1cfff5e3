#include <cstring>
#include <functional>
#include <new>
#include <string_view>

#include "oswrap/OutOfMemory.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectObjectStubContainer.h"

namespace {

/** Takes out the one entry that leads from `key` to `stub`; false when there is none. */
template <class Table, class Key>
bool eraseFrom(Table& table, Key const& key, TreflectObjectStub const* stub) {
    auto const range = table.equal_range(key);
    for (auto at = range.first; at != range.second; ++at) {
        if (at->second == stub) {
            table.erase(at);
            return true;
        }
    }
    return false;
}

}  // namespace

// Stubs without identifier are all of NSID_UNIT, whatever the location said that they were made of.
TreflectObjectStubContainer::Key TreflectObjectStubContainer::keyOf(
    TreflectObjectLocationIf const& location) {
    if (location.hasOID())
        return {location.getNamespaceId(), location.getInternalOID(), location.orbId(),
                location.getOID()};
    return {NSID_UNIT, location.getInternalOID(), location.orbId(),
            TipprmiOID(static_cast<char const*>(nullptr), NSID_UNIT)};
}

std::size_t TreflectObjectStubContainer::hashOf(Key const& key) {
    constexpr std::size_t kFactor = 31;
    std::size_t const place =
        (key.internalOid * kFactor + key.orb.value()) * kFactor + static_cast<std::size_t>(key.ns);
    char const* const text = key.internalOid == 0 ? key.oid.getIdString() : nullptr;
    return text ? place ^ std::hash<std::string_view>()(text) : place;
}

bool TreflectObjectStubContainer::answersTo(TreflectObjectStub const& stub, Key const& key) {
    Key const own = keyOf(stub);
    if (own.ns != key.ns || own.internalOid != key.internalOid || own.orb != key.orb)
        return false;
    bool const bothNamed = own.oid.getIdString() && key.oid.getIdString();
    return bothNamed ? own.oid == key.oid : key.internalOid != 0;
}

bool TreflectObjectStubContainer::comesBefore(TreflectObjectStub const& a,
                                              TreflectObjectStub const& b) {
    char const* const left = a.oid().getIdString();
    char const* const right = b.oid().getIdString();
    int const order = left && right ? std::strcmp(left, right) : 0;
    return order != 0 ? order < 0 : a.filedAs_ < b.filedAs_;
}

void TreflectObjectStubContainer::insert(TreflectObjectStub* stub) {
    if (!stub)
        return;
    TipprmiObjectSkeleton* const server = stub->getServer();
    auto const filed = stubs_.emplace(hashOf(keyOf(*stub)), stub);
    auto const fileUnderServer = [&] {
        handlerthreads::trustPermission();
        local_.emplace(server, stub);
    };
    if (server && !OSWrap::withMemory(fileUnderServer)) {
        stubs_.erase(filed);
        throw std::bad_alloc();
    }
    stub->filedAs_ = ++entered_;
    stub->filedServer_ = server;
}

bool TreflectObjectStubContainer::erase(TreflectObjectStub* stub) {
    if (!stub || !eraseFrom(stubs_, hashOf(keyOf(*stub)), stub))
        return false;
    if (stub->filedServer_)
        eraseFrom(local_, stub->filedServer_, stub);
    stub->filedServer_ = nullptr;
    return true;
}

TreflectObjectStub* TreflectObjectStubContainer::find(
    TreflectObjectLocationIf const& location) const {
    Key const key = keyOf(location);
    TreflectObjectStub* found = nullptr;
    auto const range = stubs_.equal_range(hashOf(key));
    for (auto at = range.first; at != range.second; ++at) {
        TreflectObjectStub* const stub = at->second;
        if (stub->isValid() && answersTo(*stub, key) && (!found || comesBefore(*stub, *found)))
            found = stub;
    }
    return found;
}

void TreflectObjectStubContainer::invalidateStubs(TreflectOrbId const& orb) {
    for (auto const& entry : stubs_) {
        if (entry.second->orbId() == orb)
            entry.second->setInvalid();
    }
}

void TreflectObjectStubContainer::invalidateStubs(TipprmiObjectSkeleton const* server) {
    auto const range = local_.equal_range(server);
    for (auto at = range.first; at != range.second; ++at)
        at->second->setInvalid();
}
