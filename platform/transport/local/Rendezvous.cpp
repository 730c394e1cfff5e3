#include "platform/transport/local/Rendezvous.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
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

bool precedesByName(FolderEntry const& one, FolderEntry const& other) {
    return one.id.nameId() < other.id.nameId();
}

}  // namespace

// ---- Own terminations ---------------------------------------------------------------------------

bool Rendezvous::State::openFolder(IdentitySnapshot const& identity) {
    slot_ = identity.slot;
    if (folder == nullptr) {
        folder = EntryFolder::open(identity.directory).release();
        if (folder != nullptr) {
            watchForForks();
            watch_.prepare();
            unsettle();
            knockAt_ = OSWrap::Clock::nowNanoseconds();
        }
    }
    return folder != nullptr;
}

bool Rendezvous::State::owns(TerminationId id) const {
    auto const own = own_.find(id);
    return own != own_.end() && own->first == id;
}

Rendezvous::State::Own* Rendezvous::State::findOwn(TerminationId id) {
    return owns(id) ? &own_.find(id)->second : nullptr;
}

/** Else the table may know another one under its id, who had that before. */
bool Rendezvous::State::shows(TerminationId id) const {
    return owns(id) && own_.find(id)->second.published;
}

/** Whether an address of this process has the lock of this name id, whatever its group. */
bool Rendezvous::State::hasName(TerminationId id) {
    OSWrap::Lock<> lock(mutex_);
    return own_.count(id) != 0;
}

std::uint32_t Rendezvous::State::latestName() {
    OSWrap::Lock<> lock(mutex_);
    return latestName_;
}

/** A locked name id without files in the folder; that of 0, with a log line, when none is to be
 * had. Not under mutex_: waits for others, and no other thread of ours takes names. Name ids of
 * other slots are left alone as long as they are seen, although only those of this slot have its
 * locks: so each is easier to tell from the others. One that very many entries bear is passed over,
 * as if somebody lived there: to find out would take long. */
PresenceFile::NameLock Rendezvous::State::takeName(PresenceFile& file, unsigned char slot) {
    EntryFolder& files = *folder;
    std::vector<FolderEntry> entries = files.list();
    std::sort(entries.begin(), entries.end(), precedesByName);
    auto const isAlive = [&files](FolderEntry const& entry) {
        return files.probe(entry.file) == EntryFolder::Socket::Alive;
    };
    std::set<unsigned short> used;
    for (FolderEntry const& entry : entries)
        used.insert(entry.id.nameId());
    auto const usable = [&](unsigned short nameId) {
        TerminationId const id(nameId, slot, GRPID_UNDEF);
        auto const [first, last] = std::equal_range(entries.begin(), entries.end(),
                                                    FolderEntry{id, {}, false}, precedesByName);
        // Its owner may not have moved over to this file yet.
        return last - first <= kMostRivals && std::none_of(first, last, isAlive) && !hasName(id);
    };
    std::uint32_t const latest = latestName();
    PresenceFile::NameLock taken =
        file.takeName(latest != 0 ? latest : farFrom(used), slot, usable);
    // What its last owner, who is dead, may have left.
    for (FolderEntry const& entry : entries)
        if (taken.covers(entry.id) && !isAlive(entry))
            files.remove(entry.file);
    return taken;
}

/** Those of other machines are given elsewhere, and say nothing of where to go on here. */
void Rendezvous::State::noteName(TerminationId id) {
    if (id.slotId() == slot_)
        latestName_ = PresenceFile::laterOf(latestName_, id.nameId());
}

/** The file to take a name id from; null, with a log line, when there is none. */
std::shared_ptr<PresenceFile> Rendezvous::State::prepare(IdentitySnapshot const& identity) {
    OSWrap::Lock<> lock(mutex_);
    if (!openFolder(identity))
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
        std::shared_ptr<PresenceFile> const file = prepare(*identity);
        if (file == nullptr)
            return {};
        Identity::instance().freeze();
        PresenceFile::NameLock taken = takeName(*file, identity->slot);
        if (taken.nameId() == 0)
            return {};
        TerminationId const id(taken.nameId(), identity->slot, group);
        Own own{EntryFolder::fileName(id, identity->actor, name), folder.load()->bindHidden(id)};
        if (!own.hidden.valid())
            return {};
        if (enter(id, std::move(own), taken))
            return id;
    }
    TRANSPORT_LOG(3, kSource, "Somebody keeps replacing the files of the rendezvous folder %s",
                  folder.load()->path().c_str());
    return {};
}

bool Rendezvous::State::adopt(TerminationId id, std::string const& actor, std::string const& name,
                              Visibility visibility) {
    auto const identity = Identity::instance().snapshot();
    if (!identity)
        return false;
    DelayedLog const delayed;
    OSWrap::Lock<> reserving(reserving_);
    if (prepare(*identity) == nullptr)
        return false;
    Identity::instance().freeze();
    Own own{EntryFolder::fileName(id, actor, name, visibility), folder.load()->bindHidden(id),
            visibility};
    PresenceFile::NameLock none;
    if (!own.hidden.valid())
        return false;
    if (enter(id, std::move(own), none))
        return true;
    static Logging::LineLimit limit;
    TRANSPORT_LOG_LIMITED(limit, 3, kSource,
                          "Termination 0x%08X of another machine cannot be shown: process %d holds "
                          "its name id",
                          id.value(), toTell(folder.load()->ownerOf(id)));
    return false;
}

Rendezvous::Linking Rendezvous::State::becomeLink() {
    auto const identity = Identity::instance().snapshot();
    if (!identity)
        return Linking::Failed;
    {
        DelayedLog const delayed;
        OSWrap::Lock<> lock(mutex_);
        if (!openFolder(*identity))
            return Linking::Failed;
        renew();
        Identity::instance().freeze();
        auto const file = folder.load()->file();
        if (link_ || !file->lockLink()) {
            tellOtherLink(*file);
            return Linking::Taken;
        }
        if (!startThreads()) {
            file->unlockLink();
            return Linking::Failed;
        }
        link_ = linkLocked_ = true;
        ++published_;
    }
    OSWrap::withMemory([this] { scan(); });
    return Linking::Done;
}

/**
 * Enters a termination whose socket is bound already. From then on no other process takes its name
 * id, also when the folder's file is replaced: who takes names in a file that has come since looks
 * at the folder later, and finds the socket; in the present one he finds the lock. False when
 * somebody was faster.
 */
bool Rendezvous::State::enter(TerminationId id, Own own, PresenceFile::NameLock& taken) {
    OSWrap::Lock<> lock(mutex_);
    renew();
    auto const file = folder.load()->file();
    auto const [entered, fresh] = own_.emplace(id, std::move(own));
    if (!fresh)
        return false;
    if (!file->lockName(id)) {
        own_.erase(entered);
        return false;
    }
    noteName(id);
    if (taken.isIn(*file))
        taken.keep();
    return true;
}

/** Whether it has the lock of its name id. If somebody holds that in a file that has come since,
 * whether at least nobody shows the name: then its socket proves whose it is. */
bool Rendezvous::State::mayShow(TerminationId id) {
    {
        OSWrap::Lock<> lock(mutex_);
        renew();
        Own const* const own = findOwn(id);
        if (own == nullptr || own->locked)
            return true;
    }
    EntryFolder const& files = *folder;
    std::vector<FolderEntry> const entries = files.list();
    auto const [first, last] = std::equal_range(entries.begin(), entries.end(),
                                                FolderEntry{id, {}, false}, FolderEntry::precedes);
    return last - first <= kMostRivals && std::none_of(first, last, [&](FolderEntry const& entry) {
               return !EntryFolder::isOf(::getpid(), entry.file) &&
                      files.probe(entry.file) == EntryFolder::Socket::Alive;
           });
}

void Rendezvous::State::tellNoPlace(TerminationId id) const {
    PresenceTable::Entry other;
    if (table.find(id, other))
        TRANSPORT_LOG(3, kSource,
                      "Termination 0x%08X cannot be started: process %d holds its name id",
                      id.value(), static_cast<int>(other.owner));
    else
        TRANSPORT_LOG(3, kSource, "Termination 0x%08X cannot be started: it %s", id.value(),
                      "has no place in the table");
}

/** A listening socket that everybody sees; an invalid one, or no memory, and nothing changed. */
OpenSocket Rendezvous::State::publishLocked(Own& own, TerminationId id) {
    renew();
    if (!startThreads() || !own.hidden.show(own.file))
        return OpenSocket();
    bool admitted = false;
    bool const hasMemory = OSWrap::withMemory([&] {
        admitted = table.admit(id, {own.file, ::getpid(), own.visibility});
    });
    if (!admitted)
        own.hidden.hide(own.file);
    if (!hasMemory)
        throw std::bad_alloc();
    if (!admitted) {
        tellNoPlace(id);
        return OpenSocket();
    }
    own.identity = folder.load()->identityOf(own.file).value_or(FileIdentity());
    own.published = true;
    ++published_;
    return own.hidden.release();
}

OpenSocket Rendezvous::State::show(TerminationId id) {
    DelayedLog const delayed;
    bool const mayBeShown = mayShow(id);
    OSWrap::Lock<> lock(mutex_);
    Own* const own = findOwn(id);
    if (own == nullptr || own->published) {
        TRANSPORT_LOG(3, kSource, "Termination 0x%08X cannot be started: it %s", id.value(),
                      own == nullptr ? "has no address" : "has been started already");
        return OpenSocket();
    }
    if (mayBeShown)
        return publishLocked(*own, id);
    TRANSPORT_LOG(3, kSource, "Termination 0x%08X cannot be started: process %d holds its name id",
                  id.value(), static_cast<int>(folder.load()->ownerOf(id)));
    return OpenSocket();
}

void Rendezvous::State::announceShown(bool anyShown) {
    if (folder == nullptr)
        return;
    folder.load()->announce();  // before we meet others, who are to know us then
    if (anyShown)
        OSWrap::withMemory([this] { scan(); });  // else "TrAnnounce" does it, once there is some
    watch_.wake();
}

/** Without a termination of our own nobody keeps the table true. That they go is queued at once for
 * the threads that tell it, as arrivals are: so who starts next, however soon, meets them anew. */
void Rendezvous::State::forgetOthers(std::vector<TerminationId> const& own) {
    std::vector<TerminationId> others = table.ids();
    std::set<TerminationId> const kept(own.begin(), own.end());
    others.erase(std::remove_if(others.begin(), others.end(),
                                [&](TerminationId id) { return kept.count(id) != 0; }),
                 others.end());
    PresenceTable::Departures gone;
    table.drop(others, gone);
    table.tell(gone);
}

/** Without memory nothing of its own has changed. */
void Rendezvous::State::withdraw(std::vector<TerminationId> const& ids) {
    PresenceTable::Departures gone;
    std::vector<TerminationId> shown;
    {
        DelayedLog const delayed;
        OSWrap::Lock<> lock(mutex_);
        for (TerminationId const id : ids)
            if (Own const* const own = findOwn(id); own != nullptr && own->published)
                shown.push_back(id);
        if (folder != nullptr)
            renew();
        if (!shown.empty() && published_ == shown.size())
            forgetOthers(shown);
        table.drop(shown, gone);
        published_ -= shown.size();
        for (TerminationId const id : ids)
            release(id);
    }
    if (shown.empty())
        return;
    if (GoneHook const hook = goneHook)
        for (TerminationId const id : shown)
            hook(id, Whose::Own);
    table.tell(gone);
    folder.load()->announce();
    watch_.wake();
}

/** Gives an address up, and takes its entry away. */
void Rendezvous::State::release(TerminationId id) {
    Own const* const own = findOwn(id);
    if (own == nullptr)
        return;
    if (own->published)
        folder.load()->remove(own->file);
    own_.erase(id);
    // Last, so that nobody sees an entry without its lock.
    folder.load()->file()->unlockName(id);
}

/** Tells the channels, then the listeners, of others. */
void Rendezvous::State::tell(PresenceTable::Departures& gone) {
    if (gone.ids().empty())
        return;
    if (GoneHook const hook = goneHook)
        for (TerminationId const id : gone.ids())
            hook(id, Whose::Others);
    table.tell(gone);
}

// ---- The public face ----------------------------------------------------------------------------

Rendezvous::Rendezvous() : state_(*new State) {}

Rendezvous& Rendezvous::instance() {
    static Rendezvous& rendezvous = *new Rendezvous;
    return rendezvous;
}

TerminationId Rendezvous::reserve(GroupId group, std::string const& name) {
    OSWrap::DisableCancelStateGuard const noCancel;
    return inForkedChild() ? TerminationId() : state_.reserve(group, name);
}

namespace {

void tellShortage(TerminationId own) {
    TRANSPORT_LOG(3, kSource, "Termination 0x%08X cannot be started: it %s", own.value(),
                  "has no memory");
}

}  // namespace

int Rendezvous::publish(TerminationId own) {
    OSWrap::DisableCancelStateGuard const noCancel;
    if (inForkedChild())
        return -1;
    OpenSocket socket;
    bool const hasMemory = OSWrap::withMemory([&] {
        state_.awaitPlaces({own});
        socket = state_.show(own);
    });
    if (!hasMemory) {
        tellShortage(own);
        throw std::bad_alloc();  // a broker that is not born can be asked for again
    }
    state_.announceShown(socket.valid());
    return socket.release();
}

std::vector<OpenSocket> Rendezvous::publish(std::vector<TerminationId> const& own) {
    OSWrap::DisableCancelStateGuard const noCancel;
    std::vector<OpenSocket> sockets(own.size());
    if (inForkedChild())
        return sockets;
    bool any = false;
    state_.awaitPlaces(own);
    for (std::size_t i = 0; i < own.size(); ++i) {
        if (!OSWrap::withMemory([&] { sockets[i] = state_.show(own[i]); }))
            tellShortage(own[i]);
        any = any || sockets[i].valid();
    }
    state_.announceShown(any);
    return sockets;
}

Rendezvous::Linking Rendezvous::becomeLink() {
    OSWrap::DisableCancelStateGuard const noCancel;
    return inForkedChild() ? Linking::Failed : state_.becomeLink();
}

bool Rendezvous::adopt(TerminationId id, std::string const& actor, std::string const& name,
                       Visibility visibility) {
    OSWrap::DisableCancelStateGuard const noCancel;
    return !inForkedChild() && state_.adopt(id, actor, name, visibility);
}

void Rendezvous::withdraw(TerminationId own) {
    OSWrap::DisableCancelStateGuard const noCancel;
    if (!inForkedChild())
        OSWrap::untilMemory([&] { state_.withdraw({own}); });
}

void Rendezvous::withdraw(std::vector<TerminationId> const& own) {
    OSWrap::DisableCancelStateGuard const noCancel;
    if (!inForkedChild())
        OSWrap::untilMemory([&] { state_.withdraw(own); });
}

int Rendezvous::connectTo(TerminationId peer) {
    OSWrap::DisableCancelStateGuard const noCancel;
    PresenceTable::Entry entry;
    if (!inForkedChild() && state_.table.find(peer, entry))
        return state_.folder.load()->connect(entry.file).release();
    errno = ENOENT;
    return -1;
}

Rendezvous::Claim Rendezvous::claim(TerminationId id, pid_t pid) {
    OSWrap::DisableCancelStateGuard const noCancel;
    return inForkedChild() ? Claim::False : state_.claim(id, pid);
}

bool Rendezvous::isLink(pid_t pid) const {
    auto const folder = state_.folder.load();
    return pid > 0 && folder != nullptr && folder->file()->linkOwner() == pid;
}

bool Rendezvous::hasLock(TerminationId id, pid_t pid) const {
    auto const folder = state_.folder.load();
    return pid > 0 && folder != nullptr && folder->ownerOf(id) == pid;
}

std::optional<Showing> Rendezvous::showingOf(TerminationId id) const {
    PresenceTable::Entry entry;
    if (inForkedChild() || !state_.table.find(id, entry))
        return std::nullopt;
    return state_.folder.load()->showingOf(entry.file);
}

bool Rendezvous::exists(TerminationId id) const {
    return !inForkedChild() && state_.table.exists(id);
}

Owner Rendezvous::ownerOf(TerminationId id) const {
    PresenceTable::Entry entry;
    if (inForkedChild() || !state_.table.find(id, entry))
        return {};
    return {entry.owner, EntryFolder::actorOf(entry.file)};
}

std::vector<TerminationId> Rendezvous::terminations() const {
    return inForkedChild() ? std::vector<TerminationId>() : state_.table.members();
}

void Rendezvous::suspect(TerminationId id) {
    OSWrap::DisableCancelStateGuard const noCancel;
    if (!inForkedChild())
        state_.suspect(id);
}

void Rendezvous::knocked() {
    OSWrap::DisableCancelStateGuard const noCancel;
    if (!inForkedChild())
        state_.knocked();
}

bool Rendezvous::stillExists(TerminationId id) {
    OSWrap::DisableCancelStateGuard const noCancel;
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

Rendezvous::GoneHook Rendezvous::goneHook(GoneHook hook) {
    return state_.goneHook.exchange(hook);
}

}  // namespace Transport
