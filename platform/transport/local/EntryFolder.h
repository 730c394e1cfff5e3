#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/transport/local/Descriptor.h"
#include "transport/TerminationId.h"

namespace Transport {

/** A file of the rendezvous folder that belongs to a termination. */
struct FolderEntry {
    TerminationId id;
    std::string file;
    bool hidden;  // bound, and not yet renamed into view
};

/**
 * The rendezvous folder on disk: sockets, locks, and the word that announces changes. Only system
 * calls and constant descriptors: any thread.
 *
 * Beside a socket per termination the folder holds one file, `presence`:
 *
 * | offset | bytes | meaning |
 * |---|---|---|
 * | 0 | 4 | raised at each change of the folder; a futex for all who wait for one |
 * | 4 | 4 | the name id that was given last |
 * | 0x10000 + name id | lock | held by the process that owns the name id |
 * | 0x20000 | lock | held for a moment while the last name id is read and written |
 *
 * The locks are fcntl record locks, because these name their owner's process id and end with it.
 * Such locks are also lost when a process closes any descriptor of the file: each process opens it
 * once and keeps it. No program code reads or writes the file through its mapping, which only the
 * kernel's futex operations use: a file that someone cuts short cannot fault.
 *
 * The name of a socket holds the process id besides the termination's, so a file that was found to
 * be a dead one's can be removed without a lock: no later owner ever has the same name.
 */
class EntryFolder {
public:
    /** Opens the folder at `path`, made when absent. Refuses, with a log line at level 3, one that
     * is a symbolic link, not the user's own, or not of mode 0700. */
    static std::unique_ptr<EntryFolder> open(std::string const& path);
    ~EntryFolder();
    EntryFolder(EntryFolder const&) = delete;
    EntryFolder& operator=(EntryFolder const&) = delete;

    std::string const& path() const { return path_; }

    // ---- Name ids and their locks ----

    /** The next name id to try, which no process takes again soon; never 0. */
    unsigned short nextNameId();
    /** Takes the lock of a name id for this process. Says nothing of those already its own. */
    bool lockName(unsigned short nameId);
    void unlockName(unsigned short nameId);
    static constexpr pid_t kFree = 0;
    static constexpr pid_t kUnknown = -1;  // held, by a process that cannot be named
    /** The process that holds the name id; kFree also when it is this process. */
    pid_t ownerOf(unsigned short nameId) const;

    // ---- Entries ----

    /** The file name for a termination of this process. */
    static std::string fileName(TerminationId id, std::string const& actor,
                                std::string const& name);
    std::vector<FolderEntry> list() const;
    bool contains(std::string const& file) const;
    /** A listening socket under the hidden name of `file`; an invalid one, with a log line, on
     * failure. */
    Descriptor listenHidden(std::string const& file) const;
    /** Renames the hidden socket into view. */
    bool show(std::string const& file) const;
    /** True when the file was there and is no more. */
    bool remove(std::string const& file) const;
    /** A connected socket; an invalid one, with errno, on failure. Does not block. */
    Descriptor connect(std::string const& file) const;

    // ---- Announcements ----

    /** Tells all processes that the folder has changed. */
    void announce() const;
    std::uint32_t announcements() const;
    /** Returns when the word differs from `seen`, and now and then without a reason. */
    void waitForAnnouncement(std::uint32_t seen) const;

private:
    EntryFolder(std::string path, Descriptor folder, Descriptor shared, void* mapping);

    bool lockByte(short type, off_t offset) const;
    bool lockCounter() const;
    void repair() const;
    std::string socketPath(std::string const& file) const;

    std::string const path_;
    Descriptor const folder_;
    Descriptor const shared_;
    void* const mapping_;  // of the announcing word's page
};

}  // namespace Transport
