#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "handler_threads/RunPermission.h"
#include "ipprmi/TipprmiOID.h"
#include "oswrap/Export.h"
#include "reflect/TreflectOrbId.h"

class TipprmiObjectSkeleton;
class TreflectObjectLocationIf;
class TreflectObjectStub;

/**
 * The stubs of a process by their locations; equal locations may coexist. Does not own the stubs.
 * A stub is taken out before what it is filed under changes, and put in again afterwards. No lock:
 * used under the run permission.
 *
 * Locations are equivalent by place (namespace, internal id, broker) and, when both have one, by
 * identifier: a relation that is not transitive, so it cannot be that of a key. Stubs are found by
 * their place alone; those of one place are few.
 */
class REFLECTORB_API TreflectObjectStubContainer {
public:
    /** Null is ignored. */
    void insert(TreflectObjectStub* stub) OSW_REQUIRES_PERMISSION;
    /** Takes out this very stub, not an equivalent one; false when it is not in. */
    bool erase(TreflectObjectStub* stub) OSW_REQUIRES_PERMISSION;
    /** The first valid stub of an equivalent location, or null. A location without identifier and
     * internal id is nowhere and found by nobody. */
    TreflectObjectStub* find(TreflectObjectLocationIf const& location) const
        OSW_REQUIRES_PERMISSION;
    /** Makes every stub of the broker's objects invalid. */
    void invalidateStubs(TreflectOrbId const& orb) OSW_REQUIRES_PERMISSION;
    /** Makes every stub that leads to this object of the process invalid. */
    void invalidateStubs(TipprmiObjectSkeleton const* server) OSW_REQUIRES_PERMISSION;

private:
    struct Key {
        NamespaceId ns;
        unsigned int internalOid;
        TreflectOrbId orb;
        TipprmiOID oid;  // its text is null for a stub without identifier
    };
    // By the hash of the place, and of the identifier for what has not been found yet, since all
    // that share one place.
    using Stubs = std::unordered_multimap<std::size_t, TreflectObjectStub*>;
    using LocalStubs = std::unordered_multimap<TipprmiObjectSkeleton const*, TreflectObjectStub*>;

    static Key keyOf(TreflectObjectLocationIf const& location);
    static std::size_t hashOf(Key const& key);
    static bool answersTo(TreflectObjectStub const& stub, Key const& key);
    /** By identifier when both have one, else and among equals in the order of their entry. */
    static bool comesBefore(TreflectObjectStub const& a,
                            TreflectObjectStub const& b) OSW_REQUIRES_PERMISSION;

    Stubs stubs_ OSW_GUARDED_BY_PERMISSION;
    // Those of local objects once more, so that the end of an object finds them at once.
    LocalStubs local_ OSW_GUARDED_BY_PERMISSION;
    std::uint64_t entered_ OSW_GUARDED_BY_PERMISSION = 0;  // how many have been put in
};
