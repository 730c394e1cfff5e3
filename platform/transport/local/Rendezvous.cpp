#include "platform/transport/local/Rendezvous.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "oswrap/CancelGuards.h"
#include "oswrap/Lock.h"
#include "platform/transport/DelayedLog.h"
#include "platform/transport/Identity.h"
#include "platform/transport/local/Fork.h"
#include "platform/transport/local/RendezvousState.h"

namespace Transport {
namespace {

constexpr char const* kSource = "TransportRendezvous";
constexpr int kNameIds = 0xFFFF;

}  // namespace

// ---- Own terminations ---------------------------------------------------------------------------

bool Rendezvous::State::openFolder(std::string const& path) {
    if (folder == nullptr) {
        folder = EntryFolder::open(path).release();
        if (folder != nullptr) {
            watchForForks();
            watch_.prepare();
        }
    }
    return folder != nullptr;
}

bool Rendezvous::State::ownsName(unsigned short nameId) const {
    return std::any_of(own_.begin(), own_.end(),
                       [&](auto const& own) { return own.first.nameId() == nameId; });
}

/** A locked name id without files in the folder; 0 when all are in use. */
unsigned short Rendezvous::State::takeName() {
    EntryFolder& files = *folder;
    for (int attempt = 0; attempt < kNameIds; ++attempt) {
        unsigned short const nameId = files.nextNameId();
        if (ownsName(nameId) || !files.lockName(nameId))
            continue;
        // What its last owner, who is dead, may have left.
        for (FolderEntry const& entry : files.list())
            if (entry.id.nameId() == nameId)
                files.remove(entry.file);
        return nameId;
    }
    return 0;
}

TerminationId Rendezvous::State::reserve(GroupId group, std::string const& name) {
    auto const identity = Identity::instance().snapshot();
    if (!identity)
        return {};
    DelayedLog const delayed;
    OSWrap::Lock<> lock(mutex_);
    if (!openFolder(identity->directory))
        return {};
    Identity::instance().freeze();
    unsigned short const nameId = takeName();
    if (nameId == 0) {
        TRANSPORT_LOG(3, kSource, "No name id is left in the rendezvous folder %s",
                      folder.load()->path().c_str());
        return {};
    }
    TerminationId const id(nameId, identity->slot, group);
    own_[id] = {EntryFolder::fileName(id, identity->actor, name), false, false};
    return id;
}

/** A listening socket that everybody sees, or an invalid one and nothing changed. */
Descriptor Rendezvous::State::publishLocked(Own& own, TerminationId id,
                                            PresenceTable::Departures& gone) {
    EntryFolder& files = *folder;
    Descriptor socket = files.listenHidden(own.file);
    if (!socket.valid())
        return socket;
    ++published_;
    if (startThreads() && files.show(own.file)) {
        own.published = true;
        table.admit(id, {own.file, ::getpid()});
        scanLocked(gone);
        return socket;
    }
    --published_;
    files.remove(own.file);
    return Descriptor();
}

int Rendezvous::State::publish(TerminationId id) {
    PresenceTable::Departures gone;
    Descriptor socket;
    {
        DelayedLog const delayed;
        OSWrap::Lock<> lock(mutex_);
        auto const own = own_.find(id);
        if (own == own_.end() || own->second.published) {
            TRANSPORT_LOG(3, kSource, "Termination 0x%08X cannot be started: it %s", id.value(),
                          own == own_.end() ? "has no address" : "has been started already");
            return -1;
        }
        socket = publishLocked(own->second, id, gone);
    }
    tell(gone);
    folder.load()->announce();
    watch_.wake();
    return socket.release();
}

void Rendezvous::State::withdraw(TerminationId id) {
    PresenceTable::Departures gone;
    PresenceTable::Departures forgotten;
    bool shown = false;
    {
        OSWrap::Lock<> lock(mutex_);
        auto const own = own_.find(id);
        if (own == own_.end())
            return;
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
        folder.load()->unlockName(id.nameId());
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
