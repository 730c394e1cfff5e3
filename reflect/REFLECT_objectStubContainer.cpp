#include <cstring>
#include <iterator>
#include <tuple>

#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectObjectStubContainer.h"

bool TreflectObjectStubContainer::Before::operator()(Key const& a, Key const& b) const {
    if (!samePlace(a, b))
        return std::tie(a.ns, a.internalOid, a.orb) < std::tie(b.ns, b.internalOid, b.orb);
    char const* const left = a.oid.getIdString();
    char const* const right = b.oid.getIdString();
    if (!left || !right)
        return !left && right;
    return std::strcmp(left, right) < 0;
}

// Stubs without identifier are all of NSID_UNIT, whatever the location said that they were made of.
TreflectObjectStubContainer::Key TreflectObjectStubContainer::keyOf(
    TreflectObjectLocationIf const& location) {
    if (location.hasOID())
        return {location.getNamespaceId(), location.getInternalOID(), location.orbId(),
                location.getOID()};
    return {NSID_UNIT, location.getInternalOID(), location.orbId(),
            TipprmiOID(static_cast<char const*>(nullptr), NSID_UNIT)};
}

bool TreflectObjectStubContainer::samePlace(Key const& a, Key const& b) {
    return a.ns == b.ns && a.internalOid == b.internalOid && a.orb == b.orb;
}

void TreflectObjectStubContainer::insert(TreflectObjectStub* stub) {
    if (!stub)
        return;
    stubs_.emplace(keyOf(*stub), stub);
    stub->filedServer_ = stub->getServer();
    if (stub->filedServer_)
        local_.emplace(stub->filedServer_, stub);
}

bool TreflectObjectStubContainer::erase(TreflectObjectStub* stub) {
    auto const at = position(stub);
    if (at == stubs_.end())
        return false;
    stubs_.erase(at);
    if (stub->filedServer_)
        local_.erase({stub->filedServer_, stub});
    stub->filedServer_ = nullptr;
    return true;
}

TreflectObjectStubContainer::Stubs::iterator TreflectObjectStubContainer::position(
    TreflectObjectStub* stub) {
    if (!stub)
        return stubs_.end();
    auto const range = stubs_.equal_range(keyOf(*stub));
    for (auto at = range.first; at != range.second; ++at) {
        if (at->second == stub)
            return at;
    }
    return stubs_.end();
}

TreflectObjectStub* TreflectObjectStubContainer::find(
    TreflectObjectLocationIf const& location) const {
    Key const key = keyOf(location);
    bool const named = key.oid.getIdString() != nullptr;
    if (key.internalOid != 0) {
        Key unnamed = key;
        unnamed.oid.setIdString(nullptr);
        auto const from = stubs_.lower_bound(unnamed);
        auto to = stubs_.upper_bound(unnamed);
        // Any stub of the place is equivalent to a location without identifier.
        while (!named && to != stubs_.end() && samePlace(to->first, key))
            ++to;
        if (TreflectObjectStub* const stub = firstValid(from, to))
            return stub;
    }
    if (!named)
        return nullptr;
    auto const range = stubs_.equal_range(key);
    return firstValid(range.first, range.second);
}

TreflectObjectStub* TreflectObjectStubContainer::firstValid(Stubs::const_iterator from,
                                                            Stubs::const_iterator to) const {
    for (; from != to; ++from) {
        if (from->second->isValid())
            return from->second;
    }
    return nullptr;
}

void TreflectObjectStubContainer::invalidateStubs(TreflectOrbId const& orb) {
    for (auto const& entry : stubs_) {
        if (entry.second->orbId() == orb)
            entry.second->setInvalid();
    }
}

void TreflectObjectStubContainer::invalidateStubs(TipprmiObjectSkeleton const* server) {
    for (auto at = local_.lower_bound({server, nullptr}); at != local_.end() && at->first == server;
         ++at)
        at->second->setInvalid();
}
