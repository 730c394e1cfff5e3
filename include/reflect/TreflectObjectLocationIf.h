#pragma once

#include "ipprmi/TipprmiOID.h"
#include "reflect/NamespaceId.h"
#include "reflect/TreflectOrbId.h"

class TipprmiObjectSkeleton;

/**
 * Where an object is. Locations are ordered by namespace (signed), internal id (unsigned), then,
 * when the brokers are equal and both have an identifier, by identifier, else by broker. Two
 * locations of the same namespace, internal id and broker are equivalent when either lacks an
 * identifier.
 *
 * Marshalled form: identifier (TipprmiOID; without a name an empty one with the namespace),
 * internal id (unsigned int), broker id value (unsigned int).
 */
class REFLECTORB_API TreflectObjectLocationIf {
public:
    TreflectObjectLocationIf() = default;
    /** There is nothing here to copy: derived classes copy what they have. */
    TreflectObjectLocationIf(TreflectObjectLocationIf const&) {}
    TreflectObjectLocationIf& operator=(TreflectObjectLocationIf const&) { return *this; }
    virtual ~TreflectObjectLocationIf();

    /** Whether the object has a named identifier. */
    virtual bool hasOID() const = 0;
    /** The identifier; without a named one an empty or a made-up one. */
    virtual TipprmiOID getOID() const = 0;
    /** The broker that serves the object. */
    virtual TreflectOrbId orbId() const = 0;
    /** Internal object id at that broker; 0 means none. */
    virtual unsigned int getInternalOID() const = 0;
    /** The namespace of the broker that serves it. */
    virtual NamespaceId getNamespaceId() const = 0;
    /** The object itself when it is served in this process, else null. Not owned. */
    virtual TipprmiObjectSkeleton* getServer() const = 0;

    /** The order that is told above. Two that are equivalent may lead to one object. */
    bool operator<(TreflectObjectLocationIf const& other) const;
};

class TipprmiStream;
/** The marshalled form that is told above. */
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream,
                                         TreflectObjectLocationIf const& location);
