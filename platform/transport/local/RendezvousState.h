#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "oswrap/Mutex.h"
#include "platform/transport/local/EntryFolder.h"
#include "platform/transport/local/NeighbourWatch.h"
#include "platform/transport/local/PresenceTable.h"
#include "platform/transport/local/Rendezvous.h"

namespace Transport {

/**
 * The inside of the rendezvous. While this process has a published termination, two threads keep
 * the table true:
 *
 * - "TrAnnounce" waits for the folder's word to be raised and scans the folder;
 * - "TrPresence" waits for the end of neighbours, and checks who is suspected.
 *
 * Both end by themselves after the last termination has been withdrawn. Truth is the folder for
 * who came and went, and the lock for who lives. Whoever finds a dead one removes its entry and
 * announces that, upon which all others scan.
 */
struct Rendezvous::State {
    State() = default;
    ~State() = delete;

    // ---- Own terminations (Rendezvous.cpp) ----
    TerminationId reserve(GroupId group, std::string const& name);
    int publish(TerminationId id);
    void withdraw(TerminationId id);

    // ---- The others (RendezvousWatch.cpp) ----
    bool ownedBy(TerminationId id, pid_t pid);
    void suspect(TerminationId id);

    PresenceTable table;
    std::atomic<GoneHook> goneHook{nullptr};
    std::atomic<EntryFolder*> folder{nullptr};  // set once, never freed

private:
    struct Own {
        std::string file;
        bool published;
        bool missed;  // somebody else has removed the entry
    };
    class WatchThread;

    bool openFolder(std::string const& path) OSW_REQUIRES(mutex_);
    unsigned short takeName() OSW_REQUIRES(mutex_);
    bool ownsName(unsigned short nameId) const OSW_REQUIRES(mutex_);
    Descriptor publishLocked(Own& own, TerminationId id, PresenceTable::Departures& gone)
        OSW_REQUIRES(mutex_);
    bool startThreads() OSW_REQUIRES(mutex_);
    bool startThread(void (State::*body)(), char const* name, bool State::*lives)
        OSW_REQUIRES(mutex_);
    void tell(PresenceTable::Departures& gone);

    void watchAnnouncements();
    void watchProcesses();
    bool mayEnd(bool State::*lives);
    void scan();
    bool scanLocked(PresenceTable::Departures& gone) OSW_REQUIRES(mutex_);
    bool admitOrRemove(FolderEntry const& entry, PresenceTable::Departures& gone)
        OSW_REQUIRES(mutex_);
    void dropMissing(std::vector<TerminationId> const& seen, PresenceTable::Departures& gone)
        OSW_REQUIRES(mutex_);
    void checkSuspects();
    void checkProcess(pid_t pid);
    bool bury(PresenceTable::Known const& dead, PresenceTable::Departures& gone)
        OSW_REQUIRES(mutex_);
    std::vector<pid_t> neighbours() const;

    // Lock order: mutex_, then that of the table. Neither is held in a call of the hook or of a
    // listener.
    OSWrap::Mutex mutex_;  // changes to the folder and to the table by this process
    std::map<TerminationId, Own> own_ OSW_GUARDED_BY(mutex_);
    int published_ OSW_GUARDED_BY(mutex_) = 0;
    bool announcementThreadLives_ OSW_GUARDED_BY(mutex_) = false;
    bool processThreadLives_ OSW_GUARDED_BY(mutex_) = false;
    NeighbourWatch watch_;  // belongs to TrPresence, but for `wake`

    OSWrap::Mutex suspectsMutex_;  // a leaf
    std::set<TerminationId> suspects_ OSW_GUARDED_BY(suspectsMutex_);
};

}  // namespace Transport
