#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/transport/local/Descriptor.h"
#include "platform/transport/local/Showing.h"
#include "platform/transport/local/Visibility.h"
#include "transport/TerminationId.h"
#include "transport/TransportLayer.h"

namespace Transport {

/**
 * What a termination of this process is told about all terminations, its own included. No lock of
 * the transport is held in a call. `arrived` runs on the arrivals thread and `departed` on the
 * departures thread of the process.
 */
class PresenceListener {
public:
    virtual void arrived(TerminationId id) = 0;
    virtual void departed(TerminationId id) = 0;

protected:
    ~PresenceListener() = default;
};

/**
 * The folder in which the terminations of a machine find each other: takes addresses, shows and
 * withdraws entries, connects to them, and watches who is there. It knows of others from the first
 * `publish` until the last `withdraw` of this process. One per process, never destroyed.
 * All functions may be called on any thread, and none with a lock of the channels held. In a forked
 * child none of them does anything.
 */
class Rendezvous {
public:
    enum class Whose { Own, Others };
    /** Told when a termination is gone, before its departure is told to anyone. Another one may
     * have its id already: an own one that is not published yet, when it was of others. Must not
     * block. */
    using GoneHook = void (*)(TerminationId id, Whose whose);

    static Rendezvous& instance();

    /** Takes an address whose name id is unique in the whole folder and was not in use lately.
     * `name` is shown in the entry's name. 0, with a log line, when the folder refuses (owner,
     * mode, full disk, no name id left). The address is held until `withdraw`, and nobody else
     * takes it, whatever becomes of the folder's files. May wait for others, for less than a
     * second. Throws std::bad_alloc, with nothing taken. */
    TerminationId reserve(GroupId group, std::string const& name);
    /** Listens and shows the entry, enters it in this process's tables and announces it: all that,
     * or nothing. Waits for one who had the id before, and dies or is taken leave of, for a second
     * at most. The listening SOCK_SEQPACKET descriptor (non-blocking, close-on-exec) belongs
     * to the caller; -1, with a log line, on failure. Throws std::bad_alloc, with a log line. */
    int publish(TerminationId own);
    /** The same for many at once, which costs one look at the folder, and one second at most: the
     * descriptors in the order of the ids, one that is invalid for each that failed. Throws
     * std::bad_alloc, with no log line and nothing changed. */
    std::vector<OpenSocket> publish(std::vector<TerminationId> const& own);
    /** Takes a published entry out of view and of the tables, announces that, and frees the address
     * (also of one only reserved). Idempotent. Waits for memory if there is none. The caller closes
     * the descriptor afterwards. */
    void withdraw(TerminationId own);
    /** The same for many at once, each named once. */
    void withdraw(std::vector<TerminationId> const& own);

    enum class Linking { Done, Taken, Failed };
    /** Makes this process the one that shows terminations of other machines in the folder. From
     * then on, until it ends, it knows of others as if it had published a termination. Taken: there
     * is another one, which a log line names. Failed: the folder refuses, with a log line. */
    Linking becomeLink();
    /** Takes an address that was given elsewhere, by another machine: as `reserve`, but for the id,
     * whose slot is none of those that give addresses here. Reads no folder. False, with a log
     * line, when somebody here has its slot and name id, or the folder refuses. Throws
     * std::bad_alloc, with nothing taken. */
    bool adopt(TerminationId id, std::string const& actor, std::string const& name,
               Visibility visibility);

    /** A connected SOCK_SEQPACKET descriptor (non-blocking, close-on-exec), which belongs to the
     * caller. -1 with errno: EAGAIN when the peer's backlog is full (try again later), anything
     * else when nobody listens there. Never blocks. */
    int connectTo(TerminationId peer);
    enum class Claim {
        True,
        False,
        Unseen,  // it may, and its entry has not been seen yet: ask again in a moment
    };
    /** Whether `id` belongs to the process `pid` (which may be this process). From memory and by
     * locks: the folder is never read for who says so. */
    Claim claim(TerminationId id, pid_t pid);

    /** Whether the process `pid`, another one, is the link of this folder, or has the lock of `id`:
     * by the kernel's word alone. Who ends has lost its locks before its sockets close: the kernel
     * takes a process's locks away while it closes the descriptors, and lets go of the sockets
     * behind them when all are closed. */
    bool isLink(pid_t pid) const;
    bool hasLock(TerminationId id, pid_t pid) const;
    /** What tells this showing of `id` from those before and after; nothing when it is not there.
     * Reads the folder. Throws std::bad_alloc. */
    std::optional<Showing> showingOf(TerminationId id) const;

    /** Whether `id` is there; answers from memory. */
    bool exists(TerminationId id) const;
    /** Whose `id` is; from memory. */
    Owner ownerOf(TerminationId id) const;
    /** All who are there, but for the silent ones, in ascending order; from memory. */
    std::vector<TerminationId> terminations() const;
    /** A channel to `id` has seen its end: have the presence thread check now whether it died. */
    void suspect(TerminationId id);
    /** Whether `id` is there, of one to which a connection has just failed: waits until it is known
     * whether that one is dying, at most a second. Not for receiving threads. */
    bool stillExists(TerminationId id);
    /** Somebody has connected to a termination of this process and left without a word: one who
     * misses our locks, perhaps, because the folder's file has been replaced. Never blocks. */
    void knocked();

    /** From now on `listener` is told: first the arrival of every termination that is there (its
     * own included), then every change: an arrival and a departure once each, also the departure of
     * one whose arrival had not begun to be told, or is not told as it is silent. Detach it before
     * the last `withdraw`; else it is told then that all have gone. */
    void attach(PresenceListener& listener);
    /** Returns when no call of `listener` is running or will come, except the one from inside
     * which it is called. Idempotent. */
    void detach(PresenceListener& listener);

    /** Sets the one hook of the channels, before the first `reserve`; answers the former one, for
     * tests. */
    GoneHook goneHook(GoneHook hook);

private:
    Rendezvous();
    ~Rendezvous() = delete;
    Rendezvous(Rendezvous const&) = delete;
    Rendezvous& operator=(Rendezvous const&) = delete;

    struct State;
    State& state_;  // allocated once, never freed
};

}  // namespace Transport
