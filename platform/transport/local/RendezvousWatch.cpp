#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/Thread.h"
#include "platform/transport/DelayedLog.h"
#include "platform/transport/local/RendezvousState.h"
#include "platform/transport/local/Rivals.h"

namespace Transport {
namespace {

constexpr char const* kSource = "TransportRendezvous";
constexpr std::size_t kWatchStack = 0x20000;
/** Between two scans, so that many changes at once cost each process a few scans and not one for
 * each change. The first change after a pause is seen at once. */
constexpr long long kScanPause = 10'000'000;  // nanoseconds
/** How many entries that may have died are judged in one go, and then removed. */
constexpr std::size_t kJudgedAtOnce = 64;
/** Between the first sign of an end and the last. One that shows the first sign only, because it
 * has not moved over, is taken to live after this time. */
constexpr long long kTimeToDie = 1'000'000'000;  // nanoseconds
constexpr unsigned long kDyingLook = 1'000'000;  // nanoseconds
/** After it has moved over, a process gives the others this long to follow by themselves. */
constexpr long long kTimeToFollow = 100'000'000;  // nanoseconds
/** And so long they may be there without having been found yet. */
constexpr long long kTimeToSettle = 1'000'000'000;  // nanoseconds

/** Who is not told of a change looks for one by himself after this time. */
constexpr long long kLookAgain = 2'000'000'000;  // nanoseconds

/**
 * What may be much is done under the mutex for such a time at most, since receiving threads wait
 * for it. It goes to who asks for it first, and who waits for it has to wake up before that: so
 * between two turns the thread sleeps.
 */
class Turn {
public:
    bool isOver() const { return OSWrap::Clock::nowNanoseconds() >= end_; }
    static void letOthersIn() { OSWrap::Thread::sleep(0, 50'000); }

private:
    long long const end_ = OSWrap::Clock::nowNanoseconds() + 1'000'000;
};

/** Of the calling thread: what passes while it is stopped, or waits, does not count. */
long long processorTime() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

/** Until the pause after a scan is over, which is at least as long as the scan has `used` a
 * processor: a folder that somebody fills takes half of one at most. */
void rest(long long ended, long long used) {
    long long const until = ended + std::max(used, kScanPause);
    long long const left = until - OSWrap::Clock::nowNanoseconds();
    if (left > 0)
        OSWrap::Thread::sleep(static_cast<unsigned int>(left / 1'000'000'000),
                              static_cast<unsigned long>(left % 1'000'000'000));
}

/** In a new file name ids go on a few further, in each process by another number: some may have
 * been given in a file that came and went unseen. */
std::uint32_t nameIdsLeftOut() {
    return static_cast<std::uint32_t>(::getpid()) % 8 * 8;
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
    std::vector<pid_t> watched;
    for (;;) {
        std::shared_ptr<PresenceFile> const file = folder.load()->file();
        std::uint32_t const seen = file->announcements();
        if (folder.load()->file() != file)
            continue;  // another thread has moved over, and raised the word before we read it
        if (mayEnd(&State::announcementThreadLives_))
            return;
        long long const changed = folder.load()->changedAt();
        long long const before = processorTime();
        OSWrap::untilMemory([this] { scan(); });
        long long const used = processorTime() - before;
        long long const ended = OSWrap::Clock::nowNanoseconds();
        OSWrap::untilMemory([&] {
            if (std::vector<pid_t> toWatch = neighbours(); toWatch != watched) {
                watched = std::move(toWatch);
                watch_.wake();
            }
        });
        awaitChange(*file, seen, changed);
        rest(ended, used);
    }
}

/**
 * Until the word is raised, which it is when this process moves over to another file, too, or until
 * it is time to knock. All processes of the user share the word: one that is broken can put it back
 * or have the kernel wake others for it. The folder's own time of change is nobody's to put back,
 * so that is looked at now and then.
 */
void Rendezvous::State::awaitChange(PresenceFile const& file, std::uint32_t seen,
                                    long long changed) {
    for (;;) {
        long long const knock = timeToKnock();
        bool const knocks = knock >= 0 && knock <= kLookAgain;
        file.waitForAnnouncement(seen, knocks ? knock : kLookAgain);
        if (knocks || file.announcements() != seen || folder.load()->changedAt() != changed ||
            isOver())
            return;
        OSWrap::Thread::sleep(0,
                              kScanPause);  // others may wake who waits for the word as they like
    }
}

bool Rendezvous::State::isOver() {
    OSWrap::Lock<> lock(mutex_);
    return published_ == 0;
}

/** The body of "TrPresence". */
void Rendezvous::State::watchProcesses() {
    for (;;) {
        std::vector<NeighbourWatch::Suspect> toCheck;
        OSWrap::untilMemory([&] { toCheck = watch_.wait(); });
        if (mayEnd(&State::processThreadLives_))
            return;
        OSWrap::untilMemory([this] { checkSuspects(); });
        // Whoever is watched anew may have died before: go on until the neighbours are alive.
        do {
            for (NeighbourWatch::Suspect const& suspect : toCheck)
                OSWrap::untilMemory([&] { checkProcess(suspect); });
            OSWrap::untilMemory([&] { toCheck = watch_.choose(neighbours()); });
        } while (!toCheck.empty());
    }
}

std::vector<pid_t> Rendezvous::State::neighbours() const {
    return NeighbourWatch::neighboursAmong(table.owners());
}

// ---- The file with the locks --------------------------------------------------------------------

/** Moves over to the file that is in the folder, when somebody has taken ours away. When there is
 * none to be had, ours goes on serving those who have it. */
void Rendezvous::State::renew() {
    EntryFolder& files = *folder;
    bool const current = files.isCurrent();
    if (current && !lacksLocks_)
        return;
    auto const former = files.file();
    auto const next = current
                          ? former
                          : files.reopen(PresenceFile::laterOf(former->lastNameId(), latestName_) +
                                         nameIdsLeftOut());
    if (next == nullptr)
        return;
    files.use(next);
    bool const gained = takeLocks(current ? Locks::Lacking : Locks::All);
    if (gained || !current)
        next->announce();
    if (current)
        return;
    former->announce();
    lookAgainSoon();
    unsettle();
    static Logging::LineLimit limit;
    TRANSPORT_LOG_LIMITED(limit, 4, kSource,
                          "Somebody has removed or replaced presence in the rendezvous folder %s: "
                          "this process has moved over to the new one",
                          files.path().c_str());
}

/** For log lines, of a lock that was refused: who holds it already is told that it is free. */
int Rendezvous::State::toTell(pid_t holder) {
    return static_cast<int>(holder == PresenceFile::kFree ? ::getpid() : holder);
}

void Rendezvous::State::tellOtherLink(PresenceFile const& file) const {
    static Logging::LineLimit limit;
    TRANSPORT_LOG_LIMITED(limit, 3, kSource, "Process %d is the link of the rendezvous folder %s",
                          toTell(file.linkOwner()), folder.load()->path().c_str());
}

/** Takes the locks of own names, and of the link, in the file in use: of all when it is another one
 * than before. True when others see more of the names now. */
bool Rendezvous::State::takeLocks(Locks which) {
    auto const file = folder.load()->file();
    bool gained = false;
    if (link_ && (which == Locks::All || !linkLocked_)) {
        linkLocked_ = file->lockLink();
        if (!linkLocked_)
            tellOtherLink(*file);
    }
    bool lacking = link_ && !linkLocked_;
    for (auto& [id, own] : own_) {
        bool const before = own.locked;
        if (before && which == Locks::Lacking)
            continue;
        own.locked = file->lockName(id);
        gained = gained || (own.locked && !before);
        if (own.locked)
            continue;
        lacking = true;
        static Logging::LineLimit limit;
        TRANSPORT_LOG_LIMITED(limit, 3, kSource,
                              "Process %d holds the name id of termination 0x%08X of this process",
                              static_cast<int>(file->ownerOf(id)), id.value());
    }
    lacksLocks_ = lacking;
    return gained;
}

/** However often the file is replaced, that is not put off. */
void Rendezvous::State::lookAgainSoon() {
    if (knockAt_ == 0)
        knockAt_ = OSWrap::Clock::nowNanoseconds() + kTimeToFollow;
}

void Rendezvous::State::unsettle() {
    settledAt_ = OSWrap::Clock::nowNanoseconds() + kTimeToSettle;
}

/** How long the thread may wait until it knocks; negative for ever. */
long long Rendezvous::State::timeToKnock() {
    OSWrap::Lock<> lock(mutex_);
    if (knockAt_ == 0)
        return -1;
    return std::max(knockAt_ - OSWrap::Clock::nowNanoseconds(), 1LL);
}

void Rendezvous::State::knocked() {
    EntryFolder const* const files = folder;
    if (files != nullptr && (lacksLocks_ || !files->isCurrent()))
        files->announce();  // all who use the same file look at the folder then, we included
}

// ---- Who came and went --------------------------------------------------------------------------

/** Tells at its end who has left the table, also when memory has run out before the work was done:
 * whoever does it again finds them no more. Not under a lock. */
struct Rendezvous::State::Departed {
    explicit Departed(State& rendezvous) : state(rendezvous) {}
    ~Departed() {
        state.tell(gone);
        if (announce)
            state.folder.load()->announce();
    }
    Departed(Departed const&) = delete;
    Departed& operator=(Departed const&) = delete;

    State& state;
    PresenceTable::Departures gone;
    bool announce = false;  // so that the others scan, too
};

/** What one scan has found so far. */
struct Rendezvous::State::Scan {
    explicit Scan(Departed& left) : departed(left) {}

    Departed& departed;
    std::vector<FolderEntry> entries;
    bool knock = false;               // at those whose locks are not in the file in use
    std::vector<TerminationId> seen;  // of the table, by the files that the table knows
};

/** Makes the table what the folder says. */
void Rendezvous::State::scan() {
    Departed departed(*this);
    Scan scan(departed);
    {
        DelayedLog const delayed;
        if (!beginScan(scan))
            return;
        scan.entries = folder.load()->list();
        for (std::size_t next = 0; next < scan.entries.size();) {
            if (next != 0)
                Turn::letOthersIn();
            if (!lookAt(scan, next))
                return;
        }
        dropMissing(scan);
    }
}

bool Rendezvous::State::beginScan(Scan& scan) {
    OSWrap::Lock<> lock(mutex_);
    if (published_ == 0)
        return false;
    renew();
    scan.knock = knockAt_ != 0 && knockAt_ <= OSWrap::Clock::nowNanoseconds();
    if (scan.knock)
        knockAt_ = 0;
    return true;
}

/** Looks at entries from the `next` one on, for a turn. The reading is old already: what has gone
 * since has no socket any more. False when there is nothing to keep true any more. */
bool Rendezvous::State::lookAt(Scan& scan, std::size_t& next) {
    OSWrap::Lock<> lock(mutex_);
    if (published_ == 0)
        return false;
    Turn const turn;
    do
        lookAt(scan, scan.entries[next++]);
    while (next < scan.entries.size() && !turn.isOver());
    return true;
}

namespace {

/** Whether the owner of the lock is the one that the entry names, as far as the kernel tells. */
bool isProven(FolderEntry const& entry, pid_t owner) {
    return owner == EntryFolder::kUnknown || EntryFolder::isOf(owner, entry.file);
}

}  // namespace

void Rendezvous::State::lookAt(Scan& scan, FolderEntry const& entry) {
    EntryFolder& files = *folder;
    bool const known = table.contains(entry.id, entry.file);
    if (known)
        scan.seen.push_back(entry.id);
    bool const own = own_.count(entry.id) != 0;  // its lock
    if (known && (own || !scan.knock))
        return;
    if (!own && !known && !entry.hidden && admit(scan.entries, entry, scan.departed.gone)) {
        scan.seen.push_back(entry.id);
        return;
    }
    pid_t const owner = files.ownerOf(entry.id);
    if (owner == EntryFolder::kFree && files.probe(entry.file) == EntryFolder::Socket::Dead) {
        if (!known && removeLeft(entry)) {
            scan.departed.announce = true;
            return;
        }
    } else if (scan.knock && !own && !isProven(entry, owner)) {
        files.knock(entry.file);
    }
}

/** True when it was there. */
bool Rendezvous::State::removeLeft(FolderEntry const& entry) {
    if (!folder.load()->remove(entry.file))
        return false;
    static Logging::LineLimit limit;
    TRANSPORT_LOG_LIMITED(limit, 5, kSource, "Removed %s, which a process without an end had left",
                          entry.file.c_str());
    return true;
}

/**
 * The process that owns a living entry and is named by it: who holds the lock. Who has not followed
 * to the file in use, or was overtaken there by somebody else, does not hold it: then it is who
 * listens. Nothing when that proves nobody, or others who bear the id are believed rather.
 */
std::optional<pid_t> Rendezvous::State::provenOwner(std::vector<FolderEntry> const& all,
                                                    FolderEntry const& entry) {
    EntryFolder const& files = *folder;
    if (files.probe(entry.file) != EntryFolder::Socket::Alive)
        return std::nullopt;
    pid_t owner = files.ownerOf(entry.id);
    bool const holdsLock = owner != EntryFolder::kFree && isProven(entry, owner);
    if (!holdsLock) {
        owner = files.listenerOf(entry.file);
        if (owner == EntryFolder::kUnknown)
            lookAgainSoon();
        // A forked child may listen on after its parent's end.
        if (owner <= 0 || !EntryFolder::isOf(owner, entry.file) || NeighbourWatch::hasEnded(owner))
            return std::nullopt;
    }
    if (!Rivals(files, all, slot_).believe(entry, holdsLock))
        return std::nullopt;
    return owner;
}

/** Enters one who is new, if he proves to own his entry, and nobody who is there has his id. */
bool Rendezvous::State::admit(std::vector<FolderEntry> const& all, FolderEntry const& entry,
                              PresenceTable::Departures& gone) {
    PresenceTable::Entry known;
    if (table.find(entry.id, known) &&
        folder.load()->probe(known.file) == EntryFolder::Socket::Alive)
        return false;
    std::optional<pid_t> const owner = provenOwner(all, entry);
    if (!owner)
        return false;
    noteName(entry.id);
    table.drop(entry.id, gone);  // whose successor, under the same id, this one is
    if (table.isLeaving(entry.id)) {
        lookAgainSoon();  // the departure is told first
        return false;
    }
    return table.admit(entry.id, {entry.file, *owner, entry.visibility});
}

/** A reading of the folder may miss what is renamed meanwhile, so it is asked again by name. */
void Rendezvous::State::dropMissing(Scan& scan) {
    std::sort(scan.seen.begin(), scan.seen.end());
    std::vector<PresenceTable::Known> const missing = table.notAmong(scan.seen);
    for (std::size_t first = 0; first < missing.size(); first += kJudgedAtOnce) {
        if (first != 0)
            Turn::letOthersIn();
        OSWrap::Lock<> lock(mutex_);
        std::vector<TerminationId> gone;
        for (std::size_t i = first; i < std::min(first + kJudgedAtOnce, missing.size()); ++i) {
            PresenceTable::Known const& known = missing[i];
            if (!shows(known.id) && table.contains(known.id, known.entry.file) &&
                !folder.load()->contains(known.entry.file))
                gone.push_back(known.id);
        }
        table.drop(gone, scan.departed.gone);
    }
    missOwn();
}

void Rendezvous::State::missOwn() {
    std::optional<TerminationId> last;
    while (missOwn(last))
        Turn::letOthersIn();
}

/** Looks at own entries behind the `last` one, for a turn; true when there may be more. */
bool Rendezvous::State::missOwn(std::optional<TerminationId>& last) {
    OSWrap::Lock<> lock(mutex_);
    Turn const turn;
    EntryFolder const& files = *folder;
    auto next = last ? own_.upper_bound(*last) : own_.begin();
    for (; next != own_.end() && !(last && turn.isOver()); ++next) {
        last = next->first;
        Own& own = next->second;
        if (!own.published || own.missed || files.identityOf(own.file) == own.identity)
            continue;
        own.missed = true;
        TRANSPORT_LOG(3, kSource,
                      "Somebody has removed %s of this process from the rendezvous folder %s: "
                      "others do not see it any more",
                      own.file.c_str(), files.path().c_str());
    }
    return next != own_.end();
}

/**
 * Who says Hello before his announcement has come here, or been served, is found by the next scan.
 * Nothing is read for him, since anybody may say Hello. The kernel looks for a lock among all that
 * there are, so it is asked once, and not at all for who is known by a living socket: whatever it
 * answered, also when a process id has been given again, he would be believed. Where the file has
 * been replaced lately, the lock of one whose entry has not been seen may not be there yet, or be
 * somebody else's: that tells nothing.
 */
Rendezvous::Claim Rendezvous::State::claim(TerminationId id, pid_t pid) {
    PresenceTable::Entry known;
    auto const isAlive = [&] {
        return folder.load()->probe(known.file) == EntryFolder::Socket::Alive;
    };
    if (pid > 0 && table.find(id, known) && known.owner == pid && isAlive())
        return Claim::True;
    DelayedLog const delayed;
    OSWrap::Lock<> lock(mutex_);
    if (Own const* const own = findOwn(id))
        return own->published && pid == ::getpid() ? Claim::True : Claim::False;
    // A process that the kernel does not name to us, as one of another pid namespace, owns nothing.
    if (published_ == 0 || pid <= 0)
        return Claim::False;
    EntryFolder const& files = *folder;
    pid_t holder = files.ownerOf(id);
    if (holder != pid && !files.isCurrent()) {
        renew();  // it may have moved over before us
        holder = files.ownerOf(id);
    }
    if (table.find(id, known)) {
        // Or it has not yet, and we have.
        bool const lives = holder == known.owner || isAlive();
        if (lives || known.owner == pid)
            return lives && known.owner == pid ? Claim::True : Claim::False;
    }
    bool const mayBe = holder == pid || OSWrap::Clock::nowNanoseconds() < settledAt_;
    return mayBe ? Claim::Unseen : Claim::False;
}

// ---- Who died -----------------------------------------------------------------------------------

void Rendezvous::State::suspect(TerminationId id) {
    long long const latest = OSWrap::Clock::nowNanoseconds() + kTimeToDie;
    {
        OSWrap::Lock<> lock(suspectsMutex_);
        suspects_.emplace(id, latest);
    }
    watch_.wake();
}

bool Rendezvous::State::hasLetGo(PresenceTable::Known const& known) const {
    return folder.load()->ownerOf(known.id) != known.entry.owner;
}

/** Whether its owner has let go of its lock, and either has ended for sure or let go of its socket
 * as well. Only the lock is free when he has not moved over to our file yet; a forked child of his
 * may keep the socket, and holds no lock. */
bool Rendezvous::State::isDead(PresenceTable::Known const& known, Process process) const {
    return hasLetGo(known) &&
           (process == Process::Ended ||
            folder.load()->probe(known.entry.file) != EntryFolder::Socket::Alive);
}

/** Takes those that are dead out of the table and their entries out of the folder; true when there
 * are any. Not all in one go, since receiving threads wait for the mutex, and a process may have
 * had very many. */
bool Rendezvous::State::bury(std::vector<PresenceTable::Known> const& all, Process process,
                             Departed& departed) {
    bool found = false;
    for (std::size_t next = 0; next < all.size();) {
        if (next != 0)
            Turn::letOthersIn();
        OSWrap::Lock<> lock(mutex_);
        renew();
        std::vector<TerminationId> dead;
        std::vector<std::string const*> files;
        std::size_t const end = std::min(next + kJudgedAtOnce, all.size());
        Turn const turn;
        do {
            PresenceTable::Known const& known = all[next++];
            if (shows(known.id) || !table.contains(known.id, known.entry.file) ||
                !isDead(known, process))
                continue;
            dead.push_back(known.id);
            files.push_back(&known.entry.file);
        } while (next < end && !turn.isOver());
        table.drop(dead, departed.gone);
        for (std::string const* const file : files)
            departed.announce = folder.load()->remove(*file) || departed.announce;
        found = found || !dead.empty();
    }
    return found;
}

/** Those whose end has only begun are looked at again in a moment: nothing else may tell of it. */
void Rendezvous::State::checkSuspects() {
    Suspects suspects;
    {
        OSWrap::Lock<> lock(suspectsMutex_);
        suspects.swap(suspects_);
    }
    bool const looked = OSWrap::withMemory([&] { check(suspects); });
    if (looked)
        keepDying(suspects);
    bool const again = !suspects.empty();
    {
        OSWrap::Lock<> lock(suspectsMutex_);
        suspects_.merge(suspects);  // needs no memory
    }
    if (!looked)
        throw std::bad_alloc();
    if (again) {
        OSWrap::Thread::sleep(0, kDyingLook);
        watch_.wake();
    }
}

/** Takes out all but those that have let go of their lock and are not dead yet, while that may be
 * the beginning of their end. */
void Rendezvous::State::keepDying(Suspects& suspects) {
    long long const now = OSWrap::Clock::nowNanoseconds();
    OSWrap::Lock<> lock(mutex_);
    for (auto one = suspects.begin(); one != suspects.end();) {
        PresenceTable::Known known{one->first, {}};
        bool const dying = now < one->second && !shows(known.id) &&
                           table.find(known.id, known.entry) && hasLetGo(known);
        one = dying ? std::next(one) : suspects.erase(one);
    }
}

/**
 * Looks at the owners of channels that have ended. All peers of a dead process come here at the
 * same time, and only the one that removes its entry raises the word. Should that peer die before
 * it has raised the word, the processes that watch it raise the word for its own death, and the
 * scans that follow find both.
 */
void Rendezvous::State::check(Suspects const& suspects) {
    Departed departed(*this);
    DelayedLog const delayed;
    std::vector<PresenceTable::Known> all;
    for (auto const& [id, until] : suspects) {
        PresenceTable::Known known{id, {}};
        if (table.find(id, known.entry))
            all.push_back(std::move(known));
    }
    bury(all, Process::Unknown, departed);
}

/** Looks for itself, and answers whether that was too early. The kernel takes the locks of a dying
 * process first, then its sockets, one after the other. Without memory nobody can look. */
bool Rendezvous::State::mayBeDying(TerminationId id) {
    if (!OSWrap::withMemory([&] { check({{id, 0}}); }))
        return false;
    OSWrap::Lock<> lock(mutex_);
    PresenceTable::Known known{id, {}};
    return !shows(id) && table.find(id, known.entry) && hasLetGo(known);
}

bool Rendezvous::State::stillExists(TerminationId id) {
    long long const latest = OSWrap::Clock::nowNanoseconds() + kTimeToDie;
    while (table.exists(id) && mayBeDying(id) && OSWrap::Clock::nowNanoseconds() < latest)
        OSWrap::Thread::sleep(0, kDyingLook);
    return table.exists(id);
}

/** Whoever had one of these ids before, and has died or is just being taken leave of, goes first:
 * waits for that, at most a second for all of them. */
void Rendezvous::State::awaitPlaces(std::vector<TerminationId> const& ids) {
    long long const latest = OSWrap::Clock::nowNanoseconds() + kTimeToDie;
    for (TerminationId const id : ids)
        while ((mayBeDying(id) || table.isLeaving(id)) && OSWrap::Clock::nowNanoseconds() < latest)
            OSWrap::Thread::sleep(0, kDyingLook);
}

/**
 * Buries the terminations of a process that no longer holds their locks. When its entries are gone
 * already, a fellow watcher has removed them, and announces it, or the dead one did that itself and
 * may have died before it announced: then it is announced here, unless everybody scans anyway
 * because something was announced after the death.
 */
void Rendezvous::State::checkProcess(NeighbourWatch::Suspect const& suspect) {
    auto const file = folder.load()->file();
    std::uint32_t const before = file->announcements();
    Process const process = suspect.ended ? Process::Ended : Process::Unknown;
    Departed departed(*this);
    bool dead = false;
    {
        DelayedLog const delayed;
        dead = bury(table.ownedBy(suspect.pid), process, departed);
    }
    bool const removed = departed.announce;
    departed.announce = removed || (dead && file->announcements() == before);
    static Logging::LineLimit limit;
    if (removed)
        REFLECTORB_LOG_LIMITED(limit, 5, kSource,
                               "Process %d has gone without withdrawing its terminations",
                               static_cast<int>(suspect.pid));
}

}  // namespace Transport
