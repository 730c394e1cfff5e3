// The server objects of a broker, and finding objects here and at other brokers.
#include <cstdio>
#include <cstring>
#include <list>

#include "handler_threads/WithPermission.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiObjectSkeleton.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/TreflectOrbParts.h"

namespace {

/** Stands in for the code of a resolve whose failure names none. */
constexpr unsigned int kResolveFailed = 0x660006;

TreflectORB::TreflectObjectLocation nowhere(TipprmiOID const& oid) {
    return {0u, TreflectOrbId(), nullptr, oid};
}

/** Reads a name that an object without an identifier made for itself. */
bool parseMadeUpName(char const* name, unsigned int& orbId, unsigned int& ioid) {
    // Few names are of this kind; scanning the others would cost more than the search for them.
    return name && std::strncmp(name, "rmi_", 4) == 0 &&
           std::sscanf(name, "rmi_%X_%X", &orbId, &ioid) == 2;
}

/** An object without an identifier answers to the name that it makes up for itself, of which no
 * index knows: the name contains the id. */
TipprmiObjectSkeleton* findByMadeUpName(ObjectRegistry const& objects, TipprmiOID const& oid) {
    unsigned int orbId = 0;
    unsigned int ioid = 0;
    if (!parseMadeUpName(oid.getIdString(), orbId, ioid))
        return nullptr;
    TipprmiObjectSkeleton* const object = objects.find(ioid);
    return object && object->getOID() == oid ? object : nullptr;
}

}  // namespace

bool TreflectORB::registerObject(TipprmiObjectSkeleton* object) {
    if (!object)
        return false;
    WithPermission const permission;
    if (parts_->retired)
        return false;
    InterfaceRepository::instance()->keepForBrokers_();
    parts_->objects.add(*object);
    TreflectObjectHandler::tellHiddenBy(*object);
    return true;
}

bool TreflectORB::unregisterObject(TipprmiObjectSkeleton const* object) {
    WithPermission const permission;
    parts_->objects.remove(object);
    return true;
}

void TreflectORB::identifierChanged_(TipprmiObjectSkeleton const& object) {
    WithPermission const permission;
    parts_->objects.identifierChanged(object);
    TreflectObjectHandler::tellHiddenBy(object);
}

TreflectORB::TreflectObjectLocation TreflectORB::locateObject(TipprmiOID const& oid) const {
    if (oid.getNamespaceId() != namespace_) {
        TreflectORB const* const other = getInstance(oid.getNamespaceId());
        return other ? other->locateObject(oid) : nowhere(oid);
    }
    TreflectObjectLocation location(oid);
    if (location.getInternalOID() != 0) {
        if (location.orbId() == orbId_) {
            WithPermission const permission;
            location.setServer(parts_->objects.find(location.getInternalOID()));
        }
        return location;
    }
    location = locateLocalObject_(oid);
    return location.getInternalOID() != 0 ? location : locateRemoteObject_(oid);
}

TreflectORB::TreflectObjectLocation TreflectORB::locateLocalObject_(TipprmiOID const& oid) const {
    WithPermission const permission;
    TipprmiObjectSkeleton* object = parts_->objects.find(oid);
    if (!object)
        object = findByMadeUpName(parts_->objects, oid);
    return object ? TreflectObjectLocation(object->getInternalOID(), orbId_, object, oid)
                  : nowhere(oid);
}

TreflectORB::TreflectObjectLocation TreflectORB::locateRemoteObject_(TipprmiOID const& oid) const {
    std::list<Transport::TerminationId> const members = membersOfGroup(*this);
    for (auto member = members.rbegin(); member != members.rend(); ++member) {
        if (*member == termId())
            continue;
        if (unsigned int const ioid = resolve(*member, oid))
            return {ioid, convertId(*member), nullptr, oid};
    }
    return nowhere(oid);
}

unsigned int TreflectORB::resolve(Transport::TerminationId const& target, TipprmiOID oid) const {
    BrokerRequest request(*this, TreflectMessage::tResolve);
    request.arguments() << oid;
    if (request.arguments().hasMarshallingFailed())  // longer than any message
        return 0;
    if (!request.send(target)) {
        TipprmiExceptionContainer container;
        request.response() >> container;
        TipprmiGeneralException exception(kResolveFailed);
        container.getExceptionData(exception);
        return 0;
    }
    unsigned int ioid = 0;
    request.response() >> ioid;
    return ioid;
}

TreflectORB::TreflectObjectLocation::TreflectObjectLocation(TipprmiOID const& oid) : oid_(oid) {
    unsigned int orbId = 0;
    unsigned int ioid = 0;
    if (!parseMadeUpName(oid.getIdString(), orbId, ioid))
        return;
    ioid_ = ioid;
    orbId_ = TreflectOrbId(orbId);
    oid_ = TipprmiOID(static_cast<char const*>(nullptr), orbId_.namespaceId());
}

TreflectORB::TreflectObjectLocation::TreflectObjectLocation(unsigned int const& ioid,
                                                            TreflectOrbId const& orb,
                                                            TipprmiObjectSkeleton* server,
                                                            TipprmiOID const& oid)
    : ioid_(ioid), orbId_(orb), oid_(oid), server_(server) {}

TreflectORB::TreflectObjectLocation::~TreflectObjectLocation() = default;

bool TreflectORB::TreflectObjectLocation::hasOID() const {
    return oid_.getIdString() != nullptr;
}
TipprmiOID TreflectORB::TreflectObjectLocation::getOID() const {
    return oid_;
}
TreflectOrbId TreflectORB::TreflectObjectLocation::orbId() const {
    return orbId_;
}
unsigned int TreflectORB::TreflectObjectLocation::getInternalOID() const {
    return ioid_;
}
NamespaceId TreflectORB::TreflectObjectLocation::getNamespaceId() const {
    return oid_.getNamespaceId();
}
TipprmiObjectSkeleton* TreflectORB::TreflectObjectLocation::getServer() const {
    return server_;
}

TipprmiStream& operator>>(TipprmiStream& stream, TreflectORB::TreflectObjectLocation& location) {
    unsigned int orbId = 0;
    stream >> location.oid_ >> location.ioid_ >> orbId;
    location.orbId_ = TreflectOrbId(orbId);
    return stream;
}
