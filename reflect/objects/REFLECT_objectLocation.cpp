#include "ipprmi/TipprmiStream.h"
#include "reflect/TreflectObjectLocationIf.h"

TreflectObjectLocationIf::~TreflectObjectLocationIf() = default;

bool TreflectObjectLocationIf::operator<(TreflectObjectLocationIf const& other) const {
    if (getNamespaceId() != other.getNamespaceId())
        return getNamespaceId() < other.getNamespaceId();
    if (getInternalOID() != other.getInternalOID())
        return getInternalOID() < other.getInternalOID();
    if (orbId() == other.orbId() && hasOID() && other.hasOID())
        return getOID() < other.getOID();
    return orbId() < other.orbId();
}

TipprmiStream& operator<<(TipprmiStream& stream, TreflectObjectLocationIf const& location) {
    if (location.hasOID())
        stream << location.getOID();
    else
        stream << "" << location.getNamespaceId();
    return stream << location.getInternalOID() << location.orbId().value();
}
