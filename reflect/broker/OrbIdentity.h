#pragma once

#include "reflect/NamespaceId.h"
#include "reflect/TreflectOrbId.h"
#include "transport/TerminationId.h"

/**
 * How brokers and terminations are addressed, and how the two addresses are converted. Free of any
 * broker, since a broker needs its group before it exists; `self` only tells the log who asks.
 */
class OrbIdentity {
public:
    explicit OrbIdentity(TreflectOrbId self) : self_(self) {}

    Transport::GroupId groupOf(NamespaceId ns) const;
    NamespaceId namespaceOf(Transport::GroupId group) const;
    TreflectOrbId toOrbId(Transport::TerminationId id) const;
    Transport::TerminationId toTerminationId(TreflectOrbId id) const;

private:
    TreflectOrbId const self_;
};
