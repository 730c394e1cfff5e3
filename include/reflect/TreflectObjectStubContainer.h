#pragma once

#include <map>
#include <set>
#include <utility>

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
 * The order of locations is not transitive where named and unnamed ones of one object meet, so it
 * cannot be a key. The key here is the place (namespace, internal id, broker); stubs of one place
 * stand together, those without identifier first, then by identifier, and a search by the order of
 * locations looks at the one or the other part of them.
 */
class REFLECTORB_API TreflectObjectStubContainer {
public:
    /** Null is ignored. */
    void insert(TreflectObjectStub* stub);
    /** Takes out this very stub, not an equivalent one; false when it is not in. */
    bool erase(TreflectObjectStub* stub);
    /** The first valid stub of an equivalent location, or null. A location without identifier and
     * internal id is nowhere and found by nobody. */
    TreflectObjectStub* find(TreflectObjectLocationIf const& location) const;
    /** Makes every stub of the broker's objects invalid. */
    void invalidateStubs(TreflectOrbId const& orb);
    /** Makes every stub that leads to this object of the process invalid. */
    void invalidateStubs(TipprmiObjectSkeleton const* server);

private:
    struct Key {
        NamespaceId ns;
        unsigned int internalOid;
        TreflectOrbId orb;
        TipprmiOID oid;  // its text is null for a stub without identifier
    };
    struct Before {
        bool operator()(Key const& a, Key const& b) const;
    };
    using Stubs = std::multimap<Key, TreflectObjectStub*, Before>;

    static Key keyOf(TreflectObjectLocationIf const& location);
    static bool samePlace(Key const& a, Key const& b);
    TreflectObjectStub* firstValid(Stubs::const_iterator from, Stubs::const_iterator to) const;
    Stubs::iterator position(TreflectObjectStub* stub);

    // Both guarded by the run permission.
    Stubs stubs_;
    // Those of local objects once more, so that the end of an object finds them at once.
    std::set<std::pair<TipprmiObjectSkeleton const*, TreflectObjectStub*>> local_;
};
