#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "handler_threads/RunPermission.h"
#include "ipprmi/TipprmiOID.h"

class TipprmiObjectSkeleton;

/**
 * The server objects of one broker by internal object id, with an index by identifier, so that an
 * identifier is found as quickly among many objects as among few. Does not own the objects.
 */
class ObjectRegistry {
public:
    ObjectRegistry() = default;
    ObjectRegistry(ObjectRegistry const&) = delete;
    ObjectRegistry& operator=(ObjectRegistry const&) = delete;

    /** Enters an object, once, and gives it its internal id: its address where that has 32 bits,
     * else see InternalIds. */
    void add(TipprmiObjectSkeleton& object) OSW_REQUIRES_PERMISSION;
    /** Takes an object out; no effect if it is not in. Does not look at the object. */
    void remove(TipprmiObjectSkeleton const* object) OSW_REQUIRES_PERMISSION;
    /** Notes that an object has another identifier; no effect if it is not in. */
    void identifierChanged(TipprmiObjectSkeleton const& object);

    /** Null when there is none. */
    TipprmiObjectSkeleton* find(unsigned int ioid) const;
    /** The object with the lowest internal id of those that have this identifier, or null. */
    TipprmiObjectSkeleton* find(TipprmiOID const& oid) const;

    /** All objects, in no order. */
    std::vector<TipprmiObjectSkeleton*> all() const;
    std::size_t size() const { return byId_.size(); }

    /** Takes all objects out and tells each that it has no broker any more. */
    void disown() OSW_REQUIRES_PERMISSION;

private:
    struct HashOfText {
        std::size_t operator()(TipprmiOID const& oid) const;
    };
    struct Entry {
        TipprmiObjectSkeleton* object;
        TipprmiOID indexedAs;  // without a text when it is not in byOid_
    };
    using IdsInOrder = std::vector<std::uint32_t>;  // ascending, not empty

    /** 0 when the object is not in. Does not look at it. */
    std::uint32_t idOf(TipprmiObjectSkeleton const* object) const;
    void addToIndex(std::uint32_t id, Entry const& entry);
    void removeFromIndex(std::uint32_t id, Entry const& entry);

    std::unordered_map<std::uint32_t, Entry> byId_;
    /** The ids that differ from what the objects' addresses suggest: few, or none. */
    std::unordered_map<TipprmiObjectSkeleton const*, std::uint32_t> displaced_;
    /** The lowest id of each identifier. */
    std::unordered_map<TipprmiOID, std::uint32_t, HashOfText> byOid_;
    /** The others of identifiers that several objects have. */
    std::unordered_map<TipprmiOID, IdsInOrder, HashOfText> further_;
};
