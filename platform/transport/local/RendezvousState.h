#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "oswrap/Mutex.h"
#include "platform/transport/Identity.h"
#include "platform/transport/local/EntryFolder.h"
#include "platform/transport/local/NeighbourWatch.h"
#include "platform/transport/local/PresenceTable.h"
#include "platform/transport/local/Rendezvous.h"

namespace Transport {

/** So many entries with the same lock, or name id, are probed in one go for one that lives. */
constexpr std::ptrdiff_t kMostRivals = 64;

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
 *
 * A lock proves something only in the file that everybody finds in the folder. Whoever is about to
 * change or judge something therefore looks first whether that still is the one in use, and else
 * moves over to it (`renew`): takes the locks of its names there, and announces that in both files,
 * so that all who still use the former follow. Until they have, and while somebody else holds their
 * locks, their sockets prove whose they are (`provenOwner`): so a move-over keeps nobody from
 * anybody. And nobody is buried whose socket is still held by a process that has not ended.
 */
struct Rendezvous::State {
    State() = default;
    ~State() = delete;

    // ---- Own terminations (Rendezvous.cpp) ----
    TerminationId reserve(GroupId group, std::string const& name);
    Linking becomeLink();
    bool adopt(TerminationId id, std::string const& actor, std::string const& name,
               Visibility visibility);
    void awaitPlaces(std::vector<TerminationId> const& ids);
    /** Makes the entry visible to others; an invalid socket, with a log line, on failure. */
    OpenSocket show(TerminationId id);
    /** Has those that have been shown, and the others, meet. */
    void announceShown(bool anyShown);
    void withdraw(std::vector<TerminationId> const& ids);

    // ---- The others (RendezvousWatch.cpp) ----
    Claim claim(TerminationId id, pid_t pid);
    void suspect(TerminationId id);
    void knocked();
    bool stillExists(TerminationId id);

    PresenceTable table;
    std::atomic<GoneHook> goneHook{nullptr};
    std::atomic<EntryFolder*> folder{nullptr};  // set once, never freed

private:
    struct Own {
        std::string file;     // its name once published
        HiddenSocket hidden;  // until then
        Visibility visibility = Visibility::Member;
        bool published = false;
        bool locked = true;       // in the file in use; else somebody else holds its name id there
        bool missed = false;      // somebody else has removed the entry, or replaced it
        FileIdentity identity{};  // once published
    };
    class WatchThread;

    bool openFolder(IdentitySnapshot const& identity) OSW_REQUIRES(mutex_);
    std::shared_ptr<PresenceFile> prepare(IdentitySnapshot const& identity);
    PresenceFile::NameLock takeName(PresenceFile& file, unsigned char slot)
        OSW_REQUIRES(reserving_);
    void noteName(TerminationId id) OSW_REQUIRES(mutex_);
    bool enter(TerminationId id, Own own, PresenceFile::NameLock& taken);
    bool mayShow(TerminationId id);
    bool hasName(TerminationId id);
    std::uint32_t latestName();
    bool owns(TerminationId id) const OSW_REQUIRES(mutex_);
    bool shows(TerminationId id) const OSW_REQUIRES(mutex_);
    /** Null when it is not of this process. */
    Own* findOwn(TerminationId id) OSW_REQUIRES(mutex_);
    void tellNoPlace(TerminationId id) const;
    OpenSocket publishLocked(Own& own, TerminationId id) OSW_REQUIRES(mutex_);
    bool startThreads() OSW_REQUIRES(mutex_);
    bool startThread(void (State::*body)(), char const* name, bool State::*lives)
        OSW_REQUIRES(mutex_);
    void release(TerminationId id) OSW_REQUIRES(mutex_);
    void forgetOthers(std::vector<TerminationId> const& own) OSW_REQUIRES(mutex_);
    void tell(PresenceTable::Departures& gone);

    void watchAnnouncements();
    void watchProcesses();
    bool mayEnd(bool State::*lives);
    void awaitChange(PresenceFile const& file, std::uint32_t seen, long long changed);
    bool isOver();
    void renew() OSW_REQUIRES(mutex_);
    enum class Locks { All, Lacking };
    bool takeLocks(Locks which) OSW_REQUIRES(mutex_);
    void tellOtherLink(PresenceFile const& file) const;
    static int toTell(pid_t holder);
    void lookAgainSoon() OSW_REQUIRES(mutex_);
    void unsettle() OSW_REQUIRES(mutex_);
    long long timeToKnock();

    struct Departed;
    struct Scan;
    void scan();
    bool beginScan(Scan& scan);
    bool lookAt(Scan& scan, std::size_t& next);
    void lookAt(Scan& scan, FolderEntry const& entry) OSW_REQUIRES(mutex_);
    bool removeLeft(FolderEntry const& entry) OSW_REQUIRES(mutex_);
    std::optional<pid_t> provenOwner(std::vector<FolderEntry> const& all, FolderEntry const& entry)
        OSW_REQUIRES(mutex_);
    bool admit(std::vector<FolderEntry> const& all, FolderEntry const& entry,
               PresenceTable::Departures& gone) OSW_REQUIRES(mutex_);
    void dropMissing(Scan& scan);
    void missOwn();
    bool missOwn(std::optional<TerminationId>& last);
    /** Until when an end that has shown its first sign may take. */
    using Suspects = std::map<TerminationId, long long>;
    void checkSuspects();
    void check(Suspects const& suspects);
    void keepDying(Suspects& suspects);
    bool hasLetGo(PresenceTable::Known const& known) const OSW_REQUIRES(mutex_);
    bool mayBeDying(TerminationId id);
    void checkProcess(NeighbourWatch::Suspect const& suspect);
    enum class Process { Ended, Unknown };
    bool isDead(PresenceTable::Known const& known, Process process) const OSW_REQUIRES(mutex_);
    bool bury(std::vector<PresenceTable::Known> const& all, Process process, Departed& departed);
    std::vector<pid_t> neighbours() const;

    // Lock order: reserving_, mutex_, then that of the table. None is held in a call of the hook or
    // of a listener. Receiving threads take mutex_, so nobody waits or sleeps under it.
    OSWrap::Mutex reserving_;  // by applications' threads: one searches for a name id at a time
    OSWrap::Mutex mutex_;      // changes to the folder and to the table by this process
    /** By what each has locked: ids that differ in the group alone are the same to it. */
    std::map<TerminationId, Own, PrecedesByLock> own_ OSW_GUARDED_BY(mutex_);
    unsigned char slot_ OSW_GUARDED_BY(mutex_) = 0;        // whose name ids are given here
    std::uint32_t latestName_ OSW_GUARDED_BY(mutex_) = 0;  // the last of them, as far as seen
    std::size_t published_ OSW_GUARDED_BY(mutex_) = 0;     // the link counts like a termination
    bool link_ OSW_GUARDED_BY(mutex_) = false;
    bool linkLocked_ OSW_GUARDED_BY(mutex_) = false;  // in the file in use, as Own::locked
    bool announcementThreadLives_ OSW_GUARDED_BY(mutex_) = false;
    bool processThreadLives_ OSW_GUARDED_BY(mutex_) = false;
    /** When to look again who has not followed to the file in use, and to knock there; 0 when that
     * has been done. */
    long long knockAt_ OSW_GUARDED_BY(mutex_) = 0;
    /** Until then somebody may be there whom the table does not know. */
    long long settledAt_ OSW_GUARDED_BY(mutex_) = 0;
    std::atomic<bool> lacksLocks_{false};  // of names; written under mutex_
    NeighbourWatch watch_;                 // belongs to TrPresence, but for `wake`

    OSWrap::Mutex suspectsMutex_;  // a leaf
    Suspects suspects_ OSW_GUARDED_BY(suspectsMutex_);
};

}  // namespace Transport
