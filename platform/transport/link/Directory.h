#pragma once

#include <set>
#include <string>

#include "oswrap/Mutex.h"
#include "platform/transport/local/Rendezvous.h"
#include "transport/TerminationId.h"

namespace Link {

/** Told of the terminations of this machine, on threads of the transport: the arrival of those that
 * others are to see, and the departure of all. */
class DirectoryListener {
public:
    virtual void memberArrived(Transport::TerminationId id, std::string const& names) = 0;
    virtual void terminationLeft(Transport::TerminationId id) = 0;

protected:
    ~DirectoryListener() = default;
};

/** The terminations of this machine, as opposed to the proxies that links show. Any thread: arrival
 * and departure of one may be told by two of them, and in either order. */
class Directory final : public Transport::PresenceListener {
public:
    Directory(unsigned char slot, DirectoryListener& listener) : slot_(slot), listener_(listener) {}
    /** Begins to listen; from then until `stop` the listener is told. */
    void start();
    void stop();

    /** All that are there. */
    std::set<Transport::TerminationId> members() const;
    /** Actor and name, as they travel. */
    static std::string namesOf(Transport::TerminationId id);

    void arrived(Transport::TerminationId id) override;
    void departed(Transport::TerminationId id) override;

private:
    unsigned char const slot_;
    DirectoryListener& listener_;
    mutable OSWrap::Mutex mutex_;  // a leaf
    std::set<Transport::TerminationId> members_ OSW_GUARDED_BY(mutex_);
};

}  // namespace Link
