#include "platform/transport/local/Rendezvous.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "platform/transport/DelayedLog.h"
#include "platform/transport/Identity.h"
#include "platform/transport/local/Fork.h"
#include "platform/transport/local/RendezvousState.h"

namespace Transport {
namespace {

constexpr char const* kSource = "TransportRendezvous";
constexpr std::uint32_t kNameIds = 0xFFFF;
/** How often the folder's file may be replaced under our hands before we give up. */
constexpr int kReserveAttempts = 10;

/** The name id to go on from when nobody knows which was given last: those given lately follow the
 * ones that are there, so it lies in the middle of the widest gap between these. */
std::uint32_t farFrom(std::set<unsigned short> const& nameIds) {
    if (nameIds.empty())
        return 0;
    std::uint32_t before = *nameIds.rbegin();
    std::uint32_t widest = 0;
    std::uint32_t middle = 0;
    for (std::uint32_t const nameId : nameIds) {
        std::uint32_t const gap = (nameId + kNameIds - before - 1) % kNameIds + 1;
        if (gap > widest) {
            widest = gap;
            middle = (before + gap / 2) % kNameIds;
        }
        before = nameId;
    }
    return middle;
}

}  // namespace

// ---- Own terminations ---------------------------------------------------------------------------

bool Rendezvous::State::openFolder(std::string const& path) {
    if (folder == nullptr) {
        folder = EntryFolder::open(path).release();
        if (folder != nullptr) {
            watchForForks();
            watch_.prepare();
            knockAt_ = OSWrap::Clock::nowNanoseconds();
        }
    }
    return folder != nullptr;
}

bool Rendezvous::State::ownsName(unsigned short nameId) const {
    return std::any_of(own_.begin(), own_.end(),
                       [&](auto const& own) { return own.first.nameId() == nameId; });
}

std::set<unsigned short> Rendezvous::State::ownNames() {
    OSWrap::Lock<> lock(mutex_);
    std::set<unsigned short> names;
    for (auto const& own : own_)
        names.insert(own.first.nameId());
    return names;
}

std::uint32_t Rendezvous::State::latestName() {
    OSWrap::Lock<> lock(mutex_);
    return latestName_;
}

/** A locked name id without files in the folder; 0, with a log line, when none is to be had. Not
 * under mutex_: waits for others, and no other thread of ours takes names. */
unsigned short Rendezvous::State::takeName(PresenceFile& file) {
    EntryFolder& files = *folder;
    std::set<unsigned short> const own = ownNames();
    std::vector<FolderEntry> const entries = files.list();
    auto const isAlive = [&files](FolderEntry const& entry) {
        return files.probe(entry.file) == EntryFolder::Socket::Alive;
    };
    std::set<unsigned short> used;
    for (FolderEntry const& entry : entries)
        used.insert(entry.id.nameId());
    auto const usable = [&](unsigned short nameId) {
        // Its owner may not have moved over to this file yet.
        return own.count(nameId) == 0 &&
               (used.count(nameId) == 0 ||
                std::none_of(entries.begin(), entries.end(), [&](FolderEntry const& entry) {
                    return entry.id.nameId() == nameId && isAlive(entry);
                }));
    };
    std::uint32_t const latest = latestName();
    unsigned short const nameId = file.takeName(latest != 0 ? latest : farFrom(used), usable);
    // What its last owner, who is dead, may have left.
    for (FolderEntry const& entry : entries)
        if (nameId != 0 && entry.id.nameId() == nameId && !isAlive(entry))
            files.remove(entry.file);
    return nameId;
}

/** The file to take a name id from; null, with a log line, when there is none. */
std::shared_ptr<PresenceFile> Rendezvous::State::prepare(std::string const& path) {
    OSWrap::Lock<> lock(mutex_);
    if (!openFolder(path))
        return nullptr;
    renew();
    return folder.load()->file();
}

TerminationId Rendezvous::State::reserve(GroupId group, std::string const& name) {
    auto const identity = Identity::instance().snapshot();
    if (!identity)
        return {};
    DelayedLog const delayed;
    OSWrap::Lock<> reserving(reserving_);
    for (int attempt = 0; attempt < kReserveAttempts; ++attempt) {
        std::shared_ptr<PresenceFile> const file = prepare(identity->directory);
        if (file == nullptr)
            return {};
        Identity::instance().freeze();
        unsigned short const nameId = takeName(*file);
        if (nameId == 0)
            return {};
        TerminationId const id(nameId, identity->slot, group);
        OSWrap::Lock<> lock(mutex_);
        if (!folder.load()->file()->lockName(nameId))
            continue;  // another thread has moved over meanwhile, to where the name is taken
        latestName_ = PresenceFile::laterOf(latestName_, nameId);
        own_[id].file = EntryFolder::fileName(id, identity->actor, name);
        return id;
    }
    TRANSPORT_LOG(3, kSource, "Somebody keeps replacing the files of the rendezvous folder %s",
                  folder.load()->path().c_str());
    return {};
}

/** A listening socket that everybody sees, or an invalid one and nothing changed. */
OpenSocket Rendezvous::State::publishLocked(Own& own, TerminationId id) {
    EntryFolder& files = *folder;
    renew();
    if (!own.locked) {
        TRANSPORT_LOG(3, kSource,
                      "Termination 0x%08X cannot be started: process %d holds its name id",
                      id.value(), static_cast<int>(files.ownerOf(id.nameId())));
        return OpenSocket();
    }
    OpenSocket socket = files.listenHidden(own.file);
    if (!socket.valid())
        return socket;
    ++published_;
    if (startThreads() && files.show(own.file)) {
        own.published = true;
        own.identity = files.identityOf(own.file).value_or(FileIdentity());
        table.admit(id, {own.file, ::getpid()});
        return socket;
    }
    --published_;
    files.remove(own.file);
    return OpenSocket();
}

int Rendezvous::State::publish(TerminationId id) {
    OpenSocket socket;
    {
        DelayedLog const delayed;
        OSWrap::Lock<> lock(mutex_);
        auto const own = own_.find(id);
        if (own == own_.end() || own->second.published) {
            TRANSPORT_LOG(3, kSource, "Termination 0x%08X cannot be started: it %s", id.value(),
                          own == own_.end() ? "has no address" : "has been started already");
            return -1;
        }
        socket = publishLocked(own->second, id);
    }
    if (socket.valid())
        scan();
    folder.load()->announce();
    watch_.wake();
    return socket.release();
}

void Rendezvous::State::withdraw(TerminationId id) {
    PresenceTable::Departures gone;
    PresenceTable::Departures forgotten;
    bool shown = false;
    {
        DelayedLog const delayed;
        OSWrap::Lock<> lock(mutex_);
        auto const own = own_.find(id);
        if (own == own_.end())
            return;
        renew();
        shown = own->second.published;
        if (shown) {
            folder.load()->remove(own->second.file);
            table.drop(id, gone);
            --published_;
        }
        // Without a termination of our own nobody keeps the table true.
        if (published_ == 0)
            for (TerminationId const other : table.ids())
                table.drop(other, forgotten);
        // Last, so that nobody sees an entry without its lock.
        folder.load()->file()->unlockName(id.nameId());
        own_.erase(own);
    }
    if (!shown)
        return;
    tell(gone);
    table.tell(forgotten);
    folder.load()->announce();
    watch_.wake();
}

/** Tells the channels, then the listeners. */
void Rendezvous::State::tell(PresenceTable::Departures& gone) {
    if (gone.ids().empty())
        return;
    if (GoneHook const hook = goneHook)
        for (TerminationId const id : gone.ids())
            hook(id);
    table.tell(gone);
}

// ---- The public face ----------------------------------------------------------------------------

Rendezvous::Rendezvous() : state_(*new State) {}

Rendezvous& Rendezvous::instance() {
    static Rendezvous& rendezvous = *new Rendezvous;
    return rendezvous;
}

TerminationId Rendezvous::reserve(GroupId group, std::string const& name) {
    OSWrap::DisableCancelStateGuard const uncancelled;
    return inForkedChild() ? TerminationId() : state_.reserve(group, name);
}

int Rendezvous::publish(TerminationId own) {
    OSWrap::DisableCancelStateGuard const uncancelled;
    return inForkedChild() ? -1 : state_.publish(own);
}

void Rendezvous::withdraw(TerminationId own) {
    OSWrap::DisableCancelStateGuard const uncancelled;
    if (!inForkedChild())
        state_.withdraw(own);
}

int Rendezvous::connectTo(TerminationId peer) {
    OSWrap::DisableCancelStateGuard const uncancelled;
    PresenceTable::Entry entry;
    if (!inForkedChild() && state_.table.find(peer, entry))
        return state_.folder.load()->connect(entry.file).release();
    errno = ENOENT;
    return -1;
}

bool Rendezvous::ownedBy(TerminationId id, pid_t pid) {
    OSWrap::DisableCancelStateGuard const uncancelled;
    return !inForkedChild() && state_.ownedBy(id, pid);
}

bool Rendezvous::exists(TerminationId id) const {
    return !inForkedChild() && state_.table.exists(id);
}

std::vector<TerminationId> Rendezvous::terminations() const {
    return inForkedChild() ? std::vector<TerminationId>() : state_.table.ids();
}

void Rendezvous::suspect(TerminationId id) {
    OSWrap::DisableCancelStateGuard const uncancelled;
    if (!inForkedChild())
        state_.suspect(id);
}

void Rendezvous::knocked() {
    OSWrap::DisableCancelStateGuard const uncancelled;
    if (!inForkedChild())
        state_.knocked();
}

bool Rendezvous::stillExists(TerminationId id) {
    OSWrap::DisableCancelStateGuard const uncancelled;
    return !inForkedChild() && state_.stillExists(id);
}

void Rendezvous::attach(PresenceListener& listener) {
    if (!inForkedChild())
        state_.table.attach(listener);
}

void Rendezvous::detach(PresenceListener& listener) {
    if (!inForkedChild())
        state_.table.detach(listener);
}

void Rendezvous::goneHook(GoneHook hook) {
    state_.goneHook = hook;
}

}  // namespace Transport
