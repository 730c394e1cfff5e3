#pragma once

#include <sys/types.h>

#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "oswrap/ConditionVar.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Visibility.h"
#include "transport/TerminationId.h"

namespace Transport {

/**
 * Who is there, and who is told of it: the terminations known to this process, its listeners, and
 * the two threads that call them. Any thread. Lives as long as the process.
 *
 * A listener is told the arrival of each termination that is in the table when it is attached or
 * comes later, and the departure of each one that leaves while it is attached, once each. An
 * arrival whose call has not begun when the termination leaves is dropped; its departure is told
 * all the same. Who comes under the id of one that has left is told when that departure has been.
 * Arrivals of silent ones are never told.
 *
 * Table, listeners and both queues share one lock, so that no change can fall between them. It is
 * a leaf: nothing is called under it.
 */
class PresenceTable {
    struct Notice {
        PresenceListener* listener;
        unsigned long attachment;  // which attachment of that listener
        TerminationId id;
    };

public:
    /** As many as a reading of the folder has entries. No process has more, not even one that
     * stands for those of other machines; but each reading may meet others of somebody who fills
     * it. */
    static constexpr std::size_t kMostOfProcess = 0x20000;

    struct Entry {
        std::string file;
        pid_t owner;
        Visibility visibility = Visibility::Member;
    };
    struct Known {
        TerminationId id;
        Entry entry;
    };

    // ---- What is known ----

    bool exists(TerminationId id) const;
    /** Ids in ascending order. */
    std::vector<TerminationId> ids() const;
    /** The same without those of silent ones. */
    std::vector<TerminationId> members() const;
    bool find(TerminationId id, Entry& entry) const;
    /** Whether `id` is known by this very file. */
    bool contains(TerminationId id, std::string const& file) const;
    /** Those that a process owns. */
    std::vector<Known> ownedBy(pid_t process) const;
    /** Those that are not among `seen`, which is in ascending order. */
    std::vector<Known> notAmong(std::vector<TerminationId> const& seen) const;
    /** All owners, in ascending order. */
    std::vector<pid_t> owners() const;

    // ---- Changes ----

    /** Those that have left the table and whose departure is still to be told. */
    class Departures {
    public:
        std::vector<TerminationId> const& ids() const { return ids_; }

    private:
        friend class PresenceTable;
        std::vector<TerminationId> ids_;
        std::list<Notice> notices_;
        std::map<TerminationId, std::size_t> due_;
    };

    /** Enters a termination and queues its arrival; false when it is there already, or `isLeaving`,
     * or, with a log line, when its process has too many. */
    bool admit(TerminationId id, Entry entry);
    /** Whether one of this id has been dropped and not handed to `tell` yet. */
    bool isLeaving(TerminationId id) const;
    /** Takes a termination out, if it is there, drops its queued arrivals and adds it to
     * `departures`, which `tell` queues later. */
    void drop(TerminationId id, Departures& departures) { drop(std::vector{id}, departures); }
    /** All of them, or none when memory runs out. */
    void drop(std::vector<TerminationId> const& ids, Departures& departures);
    void tell(Departures& departures);

    // ---- Listeners ----

    void attach(PresenceListener& listener);
    void detach(PresenceListener& listener);

private:
    using Call = void (PresenceListener::*)(TerminationId);
    /** A queue and the thread that empties it, which lives while there are listeners. */
    struct Lane {
        Lane(char const* threadName, Call which) : name(threadName), call(which) {}

        char const* const name;
        Call const call;
        std::list<Notice> queue;
        bool threadLives = false;
        // The call that is going on:
        PresenceListener* called = nullptr;
        TerminationId about;
        long long since = 0;       // nanoseconds of the monotonic clock
        unsigned long thread = 0;  // id of the lane's thread
    };
    class LaneThread;

    void serve(Lane& lane);
    bool next(Lane& lane, Notice& notice);
    void finish(Lane& lane);
    void wake(Lane& lane) OSW_REQUIRES(lock_);
    bool hasRoom(pid_t owner) const OSW_REQUIRES(lock_);
    bool take(TerminationId id) OSW_REQUIRES(lock_);
    std::list<Notice> noticesOf(TerminationId id) const OSW_REQUIRES(lock_);
    bool attached(Notice const& notice) const OSW_REQUIRES(lock_);
    bool arrivalJustBegun(Notice const& departure) const OSW_REQUIRES(lock_);
    bool hasNext(Lane& lane) OSW_REQUIRES(lock_);
    void isTold(Lane const& lane, TerminationId id) OSW_REQUIRES(lock_);
    void forget(PresenceListener const& listener) OSW_REQUIRES(lock_);
    bool calledFromInside(PresenceListener const& listener) const OSW_REQUIRES(lock_);
    bool calledByOthers(PresenceListener const& listener) const OSW_REQUIRES(lock_);

    mutable OSWrap::ConditionVar lock_;  // a change of anything below is broadcast
    std::map<TerminationId, Entry> entries_ OSW_GUARDED_BY(lock_);
    std::map<pid_t, std::size_t> owned_ OSW_GUARDED_BY(lock_);  // entries of each process
    std::map<PresenceListener*, unsigned long> listeners_ OSW_GUARDED_BY(lock_);
    unsigned long lastAttachment_ OSW_GUARDED_BY(lock_) = 0;
    Lane arrivals_ OSW_GUARDED_BY(lock_){"TrArrivals", &PresenceListener::arrived};
    Lane departures_ OSW_GUARDED_BY(lock_){"TrDepartures", &PresenceListener::departed};
    std::set<TerminationId> leaving_ OSW_GUARDED_BY(lock_);
    /// How many departures of an id are queued or being told.
    std::map<TerminationId, std::size_t> due_ OSW_GUARDED_BY(lock_);
};

}  // namespace Transport
