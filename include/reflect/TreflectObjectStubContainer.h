#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

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
 * their place alone; those of one place are few, and where somebody made them many, only some are
 * looked at: then a location may have several stubs.
 *
 * Other processes say where the objects are whose handles they send, so nothing here takes longer
 * for what they choose: places are filed under a hash of this process's own (but for names that
 * have not been found yet), a stub leaves by where it stands, and those of a broker that goes are
 * found without the others.
 */
class REFLECTORB_API TreflectObjectStubContainer {
    // By the hash of the place, and of the identifier for what has not been found yet, since all
    // that share one place.
    using Stubs = std::multimap<std::size_t, TreflectObjectStub*>;
    using BrokerStubs = std::multimap<TreflectOrbId, TreflectObjectStub*>;
    using LocalStubs = std::multimap<TipprmiObjectSkeleton const*, TreflectObjectStub*>;
    using RemoteStubs = std::multimap<std::size_t, TreflectObjectStub*>;  // by identifiers' hashes

public:
    /** Where the table has a stub: the stub keeps it. Guarded by the run permission. */
    class Place {
        friend TreflectObjectStubContainer;

        std::uint64_t number_ = 0;  // among the entries of the table; 0: not in it
        Stubs::iterator stub_;
        BrokerStubs::iterator broker_;
        bool isLocal_ = false;
        LocalStubs::iterator local_;
        bool isNamedRemote_ = false;
        RemoteStubs::iterator remote_;
    };

    /** Null is ignored. */
    void insert(TreflectObjectStub* stub) OSW_REQUIRES_PERMISSION;
    /** Takes out this very stub, not an equivalent one; false when it is not in. */
    bool erase(TreflectObjectStub* stub) OSW_REQUIRES_PERMISSION;
    /** The first valid stub of an equivalent location, or null. A location without identifier and
     * internal id is nowhere and found by nobody. */
    TreflectObjectStub* find(TreflectObjectLocationIf const& location) const
        OSW_REQUIRES_PERMISSION;
    /** A valid stub of an object of another broker than `own` that has this identifier, in
     * NSID_UNIT; or null. */
    TreflectObjectStub* findRemote(TipprmiOID const& oid,
                                   TreflectOrbId const& own) const OSW_REQUIRES_PERMISSION;
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

    static Key keyOf(TreflectObjectLocationIf const& location);
    static std::size_t hashOf(Key const& key);
    /** Whether it leads to an object with an identifier in NSID_UNIT, by way of its broker. */
    static bool isNamedRemote(TreflectObjectStub const& stub);
    static bool answersTo(TreflectObjectStub const& stub, Key const& key);
    /** By identifier when both have one, else and among equals in the order of their entry. */
    static bool comesBefore(TreflectObjectStub const& a,
                            TreflectObjectStub const& b) OSW_REQUIRES_PERMISSION;

    Stubs stubs_ OSW_GUARDED_BY_PERMISSION;
    // Once more, so that the end of a broker finds those of its objects at once, and the end of a
    // local object its own.
    BrokerStubs byBroker_ OSW_GUARDED_BY_PERMISSION;
    LocalStubs local_ OSW_GUARDED_BY_PERMISSION;
    // Those of others' objects with an identifier, so that an object of this process that hides one
    // of them is known at once.
    RemoteStubs remote_ OSW_GUARDED_BY_PERMISSION;
    std::uint64_t entered_ OSW_GUARDED_BY_PERMISSION = 0;  // how many have been put in
};
