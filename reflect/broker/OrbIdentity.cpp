#include "reflect/broker/OrbIdentity.h"

#include "logging/LineLimit.h"
#include "transport/IdInfo.h"

using Transport::GroupId;
using Transport::IdInfo;

namespace {

// Ids come in messages of others.
Logging::LineLimit undefinedGroup;
Logging::LineLimit controlGroup;
Logging::LineLimit noSlot;
Logging::LineLimit undefinedNamespace;

constexpr GroupId kFirstUnitGroup = 1;
constexpr GroupId kSecondUnitGroup = 2;
constexpr GroupId kNodeGroup = 3;

/** Each redundant controller has a group of its own. */
GroupId unitGroup(unsigned char controllerSlot) {
    return controllerSlot == 1 ? kFirstUnitGroup : kSecondUnitGroup;
}

}  // namespace

GroupId OrbIdentity::groupOf(NamespaceId ns) const {
    IdInfo& info = IdInfo::instance();
    switch (ns) {
        case NSID_UNIT:
            if (info.getSlot() == 1)
                return kFirstUnitGroup;
            return info.isAxu() ? kSecondUnitGroup : unitGroup(info.activeSlot());
        case NSID_NODE:
            return kNodeGroup;
        case NSID_UNDEF:
            REFLECTORB_LOG(3, "REFLECT_orb",
                           "ORB (orbId=0x%X) can not handle namespace id NSID_UNDEF",
                           self_.value());
            return Transport::GRPID_UNDEF;
    }
    return Transport::GRPID_UNDEF;
}

NamespaceId OrbIdentity::namespaceOf(GroupId group) const {
    switch (group) {
        case kFirstUnitGroup:
        case kSecondUnitGroup:
            return NSID_UNIT;
        case kNodeGroup:
            return NSID_NODE;
        case Transport::GRPID_UNDEF:
            REFLECTORB_LOG_LIMITED(undefinedGroup, 3, "REFLECT_orb",
                                   "ORB (orbId=0x%X) can not handle group id GRPID_UNDEF",
                                   self_.value());
            return NSID_UNDEF;
        case Transport::TRSPCTRL:
            REFLECTORB_LOG_LIMITED(controlGroup, 6, "REFLECT_orb",
                                   "ORB (orbId=0x%X) has group id TRSPCTRL", self_.value());
            return NSID_UNDEF;
        default:
            return NSID_UNDEF;
    }
}

TreflectOrbId OrbIdentity::toOrbId(Transport::TerminationId id) const {
    NamespaceId const ns = namespaceOf(id.groupId());
    bool const currentSlot = ns == NSID_UNIT && IdInfo::instance().axuInSlot(id.slotId());
    return {id.nameId(), currentSlot ? static_cast<unsigned char>(0) : id.slotId(), ns};
}

Transport::TerminationId OrbIdentity::toTerminationId(TreflectOrbId id) const {
    IdInfo& info = IdInfo::instance();
    unsigned char slot = id.slotId();
    GroupId group = Transport::GRPID_UNDEF;
    switch (id.namespaceId()) {
        case NSID_UNIT:
            if (slot != 0) {
                group = unitGroup(info.activeSlot());
            } else {
                slot = info.isAxu() ? info.getSlot() : info.activeSlot();
                group = unitGroup(slot);
            }
            break;
        case NSID_NODE:
            group = kNodeGroup;
            if (slot == 0)
                REFLECTORB_LOG_LIMITED(noSlot, 3, "REFLECT_orb",
                                       "ORB (orbId=0x%X) can not handle slot 0 for NSID_NODE",
                                       self_.value());
            break;
        case NSID_UNDEF:
            REFLECTORB_LOG_LIMITED(undefinedNamespace, 3, "REFLECT_orb",
                                   "ORB (orbId=0x%X) can not handle namespace NSID_UNDEF",
                                   self_.value());
            break;
    }
    return {id.nameId(), slot, group};
}
