#include <cstring>
#include <functional>
#include <random>
#include <string_view>
#include <utility>

#include "oswrap/Clock.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectObjectStubContainer.h"

namespace {

/** So many stubs of one place are looked at. */
constexpr unsigned int kMostAtOnePlace = 256;

/** Differs from process to process, so that nobody can choose many places that share a hash. Names
 * that share one can be chosen, which costs as much as many stubs of one place. */
std::uint64_t seed() {
    static std::uint64_t const value = [] {
        try {
            std::random_device random;
            return random() | std::uint64_t{random()} << 32;
        } catch (std::exception const&) {  // no descriptor for it is left
            return static_cast<std::uint64_t>(OSWrap::Clock::nowNanoseconds());
        }
    }();
    return value;
}

/** An entry of a table, made before any table is changed. */
template <class Table, class Key>
typename Table::node_type entry(Key const& key, TreflectObjectStub* stub) {
    Table made;
    made.emplace(key, stub);
    return made.extract(made.begin());
}

std::size_t hashOf(TipprmiOID const& oid) {
    return std::hash<std::string_view>()(oid.getIdString());
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
    // Multiplications by odd numbers, and shifts, that spread each bit over all (SplitMix64).
    auto const mix = [](std::uint64_t bits) {
        bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9u;
        bits = (bits ^ bits >> 27) * 0x94D049BB133111EBu;
        return bits ^ bits >> 31;
    };
    std::uint64_t const place = std::uint64_t{key.internalOid} << 32 | key.orb.value();
    std::uint64_t const hash = mix(mix(place ^ seed()) + static_cast<std::uint64_t>(key.ns));
    char const* const text = key.internalOid == 0 ? key.oid.getIdString() : nullptr;
    return static_cast<std::size_t>(text ? hash ^ ::hashOf(key.oid) : hash);
}

bool TreflectObjectStubContainer::isNamedRemote(TreflectObjectStub const& stub) {
    return !stub.getServer() && stub.hasOID() && stub.getInternalOID() != 0 &&
           stub.getNamespaceId() == NSID_UNIT;
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
    return order != 0 ? order < 0 : a.place_.number_ < b.place_.number_;
}

void TreflectObjectStubContainer::insert(TreflectObjectStub* stub) {
    if (!stub)
        return;
    TipprmiObjectSkeleton const* const server = stub->getServer();
    Stubs::node_type filed = entry<Stubs>(hashOf(keyOf(*stub)), stub);
    BrokerStubs::node_type ofBroker = entry<BrokerStubs>(stub->orbId(), stub);
    LocalStubs::node_type local =
        server ? entry<LocalStubs>(server, stub) : LocalStubs::node_type();
    bool const isRemote = isNamedRemote(*stub);
    RemoteStubs::node_type remote =
        isRemote ? entry<RemoteStubs>(::hashOf(stub->oid()), stub) : RemoteStubs::node_type();
    Place& place = stub->place_;
    place.stub_ = stubs_.insert(std::move(filed));
    place.broker_ = byBroker_.insert(std::move(ofBroker));
    place.isLocal_ = server != nullptr;
    if (server)
        place.local_ = local_.insert(std::move(local));
    place.isNamedRemote_ = isRemote;
    if (isRemote)
        place.remote_ = remote_.insert(std::move(remote));
    place.number_ = ++entered_;
}

bool TreflectObjectStubContainer::erase(TreflectObjectStub* stub) {
    if (!stub || stub->place_.number_ == 0)
        return false;
    Place& place = stub->place_;
    stubs_.erase(place.stub_);
    byBroker_.erase(place.broker_);
    if (place.isLocal_)
        local_.erase(place.local_);
    if (place.isNamedRemote_)
        remote_.erase(place.remote_);
    place = Place();
    return true;
}

TreflectObjectStub* TreflectObjectStubContainer::find(
    TreflectObjectLocationIf const& location) const {
    Key const key = keyOf(location);
    std::size_t const hash = hashOf(key);
    TreflectObjectStub* found = nullptr;
    unsigned int looked = 0;
    for (auto at = stubs_.lower_bound(hash);
         at != stubs_.end() && at->first == hash && looked < kMostAtOnePlace; ++at, ++looked) {
        TreflectObjectStub* const stub = at->second;
        if (stub->isValid() && answersTo(*stub, key) && (!found || comesBefore(*stub, *found)))
            found = stub;
    }
    return found;
}

TreflectObjectStub* TreflectObjectStubContainer::findRemote(TipprmiOID const& oid,
                                                            TreflectOrbId const& own) const {
    std::size_t const hash = ::hashOf(oid);
    unsigned int looked = 0;
    for (auto at = remote_.lower_bound(hash);
         at != remote_.end() && at->first == hash && looked < kMostAtOnePlace; ++at, ++looked) {
        TreflectObjectStub* const stub = at->second;
        if (stub->isValid() && stub->orbId() != own && stub->oid() == oid)
            return stub;
    }
    return nullptr;
}

void TreflectObjectStubContainer::invalidateStubs(TreflectOrbId const& orb) {
    auto const range = byBroker_.equal_range(orb);
    for (auto at = range.first; at != range.second; ++at)
        at->second->setInvalid();
}

void TreflectObjectStubContainer::invalidateStubs(TipprmiObjectSkeleton const* server) {
    auto const range = local_.equal_range(server);
    for (auto at = range.first; at != range.second; ++at)
        at->second->setInvalid();
}
