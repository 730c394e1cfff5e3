#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/Thread.h"
#include "platform/transport/DelayedLog.h"
#include "platform/transport/local/RendezvousState.h"

namespace Transport {
namespace {

constexpr char const* kSource = "TransportRendezvous";
constexpr std::size_t kWatchStack = 0x20000;
/** Between two scans, so that many changes at once cost each process a few scans and not one for
 * each change. The first change after a pause is seen at once. */
constexpr long long kScanPause = 10'000'000;  // nanoseconds

/** Sleeps until the pause after a scan that ended at `scanned` is over. */
void rest(long long scanned) {
    long long const left = scanned + kScanPause - OSWrap::Clock::nowNanoseconds();
    if (left > 0)
        OSWrap::Thread::sleep(0, static_cast<unsigned long>(left));
}

}  // namespace

/** Runs one of the two bodies. Detached, and deletes itself: the bodies end by themselves. */
class Rendezvous::State::WatchThread : public OSWrap::Thread {
public:
    WatchThread(State& state, void (State::*body)(), char const* name)
        : Thread(name, OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), kWatchStack, true),
          state_(state),
          body_(body) {}

protected:
    int run() override {
        (state_.*body_)();
        return 0;
    }

private:
    State& state_;
    void (State::*const body_)();
};

bool Rendezvous::State::startThread(void (State::*body)(), char const* name, bool State::*lives) {
    if (this->*lives)
        return true;
    auto* const thread = new WatchThread(*this, body, name);
    thread->deleteOnThreadTermination();
    int const failure = thread->startQuietly();
    this->*lives = failure == 0;
    if (failure != 0) {
        delete thread;
        TRANSPORT_LOG(3, kSource, "Thread %s could not be started: %s", name,
                      std::strerror(failure));
    }
    return failure == 0;
}

bool Rendezvous::State::startThreads() {
    return startThread(&State::watchProcesses, "TrPresence", &State::processThreadLives_) &&
           startThread(&State::watchAnnouncements, "TrAnnounce", &State::announcementThreadLives_);
}

/** Whether the asking thread is to end; notes that in `lives`. */
bool Rendezvous::State::mayEnd(bool State::*lives) {
    OSWrap::Lock<> lock(mutex_);
    if (published_ != 0)
        return false;
    this->*lives = false;
    if (lives == &State::processThreadLives_)
        watch_.clear();
    return true;
}

/**
 * The body of "TrAnnounce". Reads the word before it asks whether to end, and is woken by raising
 * it after the last termination was counted out: so it cannot miss that. For the same reason a
 * change after the reading is never waited past.
 */
void Rendezvous::State::watchAnnouncements() {
    EntryFolder const& files = *folder;
    std::vector<pid_t> watched;
    for (;;) {
        std::uint32_t const seen = files.announcements();
        if (mayEnd(&State::announcementThreadLives_))
            return;
        scan();
        long long const scanned = OSWrap::Clock::nowNanoseconds();
        if (std::vector<pid_t> toWatch = neighbours(); toWatch != watched) {
            watched = std::move(toWatch);
            watch_.wake();
        }
        files.waitForAnnouncement(seen);
        rest(scanned);
    }
}

/** The body of "TrPresence". */
void Rendezvous::State::watchProcesses() {
    for (;;) {
        std::vector<pid_t> toCheck = watch_.wait();
        if (mayEnd(&State::processThreadLives_))
            return;
        checkSuspects();
        // Whoever is watched anew may have died before: go on until the neighbours are alive.
        do {
            for (pid_t const pid : toCheck)
                checkProcess(pid);
            toCheck = watch_.choose(neighbours());
        } while (!toCheck.empty());
    }
}

std::vector<pid_t> Rendezvous::State::neighbours() const {
    return NeighbourWatch::neighboursAmong(table.owners());
}

// ---- Who came and went --------------------------------------------------------------------------

void Rendezvous::State::scan() {
    PresenceTable::Departures gone;
    bool removed = false;
    {
        DelayedLog const delayed;
        OSWrap::Lock<> lock(mutex_);
        removed = scanLocked(gone);
    }
    tell(gone);
    if (removed)
        folder.load()->announce();
}

/** Makes the table what the folder says. True when entries of dead ones were removed. */
bool Rendezvous::State::scanLocked(PresenceTable::Departures& gone) {
    if (published_ == 0)
        return false;
    bool removed = false;
    std::vector<TerminationId> seen;
    for (FolderEntry const& entry : folder.load()->list()) {
        if (table.contains(entry.id, entry.file) || !admitOrRemove(entry, gone))
            seen.push_back(entry.id);
        else
            removed = true;
    }
    std::sort(seen.begin(), seen.end());
    dropMissing(seen, gone);
    return removed;
}

/** Deals with an entry that is not in the table; true when it was a dead one's and is no more. */
bool Rendezvous::State::admitOrRemove(FolderEntry const& entry, PresenceTable::Departures& gone) {
    EntryFolder& files = *folder;
    pid_t const owner = files.ownerOf(entry.id.nameId());
    if (owner == EntryFolder::kFree && !ownsName(entry.id.nameId())) {
        bool const removed = files.remove(entry.file);
        if (removed)
            TRANSPORT_LOG(5, kSource, "Removed %s, which a process without an end had left",
                          entry.file.c_str());
        return removed;
    }
    if (entry.hidden || own_.count(entry.id) != 0)
        return false;
    table.drop(entry.id, gone);  // whose successor, under the same id, this one is
    table.admit(entry.id, {entry.file, owner});
    return false;
}

/** A reading of the folder may miss what is renamed meanwhile, so it is asked again by name. */
void Rendezvous::State::dropMissing(std::vector<TerminationId> const& seen,
                                    PresenceTable::Departures& gone) {
    for (PresenceTable::Known const& known : table.notAmong(seen)) {
        if (folder.load()->contains(known.entry.file))
            continue;
        auto const own = own_.find(known.id);
        if (own == own_.end()) {
            table.drop(known.id, gone);
        } else if (!own->second.missed) {
            own->second.missed = true;
            TRANSPORT_LOG(3, kSource,
                          "Somebody has removed %s of this process from the rendezvous folder %s: "
                          "others do not see it any more",
                          known.entry.file.c_str(), folder.load()->path().c_str());
        }
    }
}

bool Rendezvous::State::ownedBy(TerminationId id, pid_t pid) {
    DelayedLog const delayed;
    OSWrap::Lock<> lock(mutex_);
    if (auto const own = own_.find(id); own != own_.end())
        return own->second.published && pid == ::getpid();
    // A process that the kernel does not name to us, as one of another pid namespace, owns nothing.
    if (published_ == 0 || pid <= 0 || folder.load()->ownerOf(id.nameId()) != pid)
        return false;
    if (table.exists(id))
        return true;
    // Its announcement is still on the way to us.
    for (FolderEntry const& entry : folder.load()->list())
        if (entry.id == id && !entry.hidden)
            return table.admit(id, {entry.file, pid});
    return false;
}

// ---- Who died -----------------------------------------------------------------------------------

void Rendezvous::State::suspect(TerminationId id) {
    {
        OSWrap::Lock<> lock(suspectsMutex_);
        suspects_.insert(id);
    }
    watch_.wake();
}

/** Takes a dead one out of the table and its entry out of the folder; true for the latter. */
bool Rendezvous::State::bury(PresenceTable::Known const& dead, PresenceTable::Departures& gone) {
    table.drop(dead.id, gone);
    return folder.load()->remove(dead.entry.file);
}

/**
 * Looks at those whose channel has ended. Only who removes the entry announces it: all peers of a
 * dead one come here at the same time. If that one dies before it has announced, its own death is
 * announced by its watchers, and the scans that follow find both.
 */
void Rendezvous::State::checkSuspects() {
    std::set<TerminationId> suspects;
    {
        OSWrap::Lock<> lock(suspectsMutex_);
        suspects.swap(suspects_);
    }
    PresenceTable::Departures gone;
    bool removed = false;
    {
        OSWrap::Lock<> lock(mutex_);
        for (TerminationId const id : suspects) {
            PresenceTable::Known known{id, {}};
            if (own_.count(id) == 0 && table.find(id, known.entry) &&
                folder.load()->ownerOf(id.nameId()) == EntryFolder::kFree)
                removed = bury(known, gone) || removed;
        }
    }
    tell(gone);
    if (removed)
        folder.load()->announce();
}

/**
 * Buries the terminations of a process that no longer holds their locks. When its entries are gone
 * already, a fellow watcher has removed them, and announces it, or the dead one did that itself and
 * may have died before it announced: then it is announced here, unless everybody scans anyway
 * because something was announced after the death.
 */
void Rendezvous::State::checkProcess(pid_t pid) {
    std::uint32_t const before = folder.load()->announcements();
    PresenceTable::Departures gone;
    bool removed = false;
    {
        OSWrap::Lock<> lock(mutex_);
        for (PresenceTable::Known const& known : table.ownedBy(pid))
            if (own_.count(known.id) == 0 && folder.load()->ownerOf(known.id.nameId()) != pid)
                removed = bury(known, gone) || removed;
    }
    if (gone.ids().empty())
        return;
    if (removed)
        REFLECTORB_LOG(5, kSource, "Process %d has gone without withdrawing its terminations",
                       static_cast<int>(pid));
    tell(gone);
    if (removed || folder.load()->announcements() == before)
        folder.load()->announce();
}

}  // namespace Transport
