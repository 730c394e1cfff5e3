#include "platform/transport/link/Directory.h"

#include "oswrap/Lock.h"
#include "platform/transport/link/Record.h"

namespace Link {

using Transport::TerminationId;

void Directory::start() {
    Transport::Rendezvous::instance().attach(*this);
}

void Directory::stop() {
    Transport::Rendezvous::instance().detach(*this);
    OSWrap::Lock<> lock(mutex_);
    members_.clear();
}

std::set<TerminationId> Directory::members() const {
    OSWrap::Lock<> lock(mutex_);
    return members_;
}

std::string Directory::namesOf(TerminationId id) {
    return joinNames(Transport::Rendezvous::instance().ownerOf(id).actor, {});
}

void Directory::arrived(TerminationId id) {
    if (id.slotId() != slot_)
        return;
    {
        OSWrap::Lock<> lock(mutex_);
        members_.insert(id);
    }
    if (!Transport::Rendezvous::instance().exists(id)) {
        OSWrap::Lock<> lock(mutex_);
        members_.erase(id);  // its departure may have been told already
        return;
    }
    listener_.memberArrived(id, namesOf(id));
}

void Directory::departed(TerminationId id) {
    if (id.slotId() != slot_)
        return;
    {
        OSWrap::Lock<> lock(mutex_);
        members_.erase(id);
    }
    listener_.terminationLeft(id);
}

}  // namespace Link
