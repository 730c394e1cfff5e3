#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "oswrap/Mutex.h"
#include "platform/transport/local/Descriptor.h"
#include "platform/transport/local/PresenceFile.h"
#include "platform/transport/local/Showing.h"
#include "platform/transport/local/Visibility.h"
#include "transport/TerminationId.h"

namespace Transport {

/** A file of the rendezvous folder that belongs to a termination. */
struct FolderEntry {
    TerminationId id;
    std::string file;
    bool hidden;  // bound, and not yet renamed into view
    Visibility visibility = Visibility::Member;

    static bool precedes(FolderEntry const& one, FolderEntry const& other) {
        return PrecedesByLock()(one.id, other.id);
    }
};

/** Device and inode. */
using FileIdentity = std::pair<dev_t, ino_t>;

/** In nanoseconds since the epoch. */
struct EntryTimes {
    long long made;   // when the socket was bound
    long long shown;  // when it was renamed last, or anything else of it was changed
};

class EntryFolder;

/**
 * A socket of this process that is bound in the folder, under a hidden name: nobody connects to it
 * yet, and all see that its id is taken. A resource that can be moved; its file goes with it,
 * unless it has been shown.
 */
class HiddenSocket {
public:
    HiddenSocket() = default;
    HiddenSocket(EntryFolder const& folder, std::string file, Descriptor socket)
        : folder_(&folder), file_(std::move(file)), socket_(socket.release()) {}
    HiddenSocket(HiddenSocket&&) = default;
    HiddenSocket& operator=(HiddenSocket&&) = delete;
    ~HiddenSocket();

    bool valid() const { return socket_.valid(); }
    /** Listens and renames it into view, as `file`, or, when that cannot be replaced, by another
     * name, which `file` is then. False, with a log line, on failure. */
    bool show(std::string& file) const;
    /** Undoes that. */
    void hide(std::string const& file) const;
    /** Gives away the socket that has been shown. */
    OpenSocket release() { return std::move(socket_); }

private:
    EntryFolder const* folder_ = nullptr;
    std::string file_;
    OpenSocket socket_;
};

/**
 * The rendezvous folder on disk: a socket per termination, and the file `presence` with the locks
 * and the word that announces changes. Any thread; nothing here waits for anybody.
 *
 * The name of a socket holds the process id besides the termination's, so a file that was found to
 * be a dead one's can be removed without a lock: no later owner ever has the same name.
 *
 * Somebody may take `presence` away or replace it. Then whoever comes next makes a new one, and all
 * others move over to that: `reopen` opens it, and `use` makes it the one in use.
 */
class EntryFolder {
public:
    /** Opens the folder at `path`, made when absent. Refuses, with a log line at level 3, one that
     * is a symbolic link, not the user's own, or not of mode 0700, and any without /proc, through
     * which its sockets are reached however long its path is. */
    static std::unique_ptr<EntryFolder> open(std::string const& path);
    EntryFolder(EntryFolder const&) = delete;
    EntryFolder& operator=(EntryFolder const&) = delete;

    std::string const& path() const { return path_; }

    // ---- The file with the locks ----

    /** The one in use. */
    std::shared_ptr<PresenceFile> file() const;
    /** Whether the one in use still is the one in the folder. */
    bool isCurrent() const { return file()->isIn(folder_.get()); }
    /** The one in the folder, made when absent, with `lastNameId` as its last name id; null, with a
     * log line, on failure. Locks that this
     * process has in it may be lost: take them (again), and call `use`. One thread at a time. */
    std::shared_ptr<PresenceFile> reopen(std::uint32_t lastNameId);
    void use(std::shared_ptr<PresenceFile> file);
    static constexpr pid_t kFree = PresenceFile::kFree;
    static constexpr pid_t kUnknown = PresenceFile::kUnknown;
    pid_t ownerOf(TerminationId id) const { return file()->ownerOf(id); }
    void announce() const { file()->announce(); }

    // ---- Entries ----

    /** The file name for a termination of this process. */
    static std::string fileName(TerminationId id, std::string const& actor, std::string const& name,
                                Visibility visibility = Visibility::Member);
    /** Whether the file's name says that it belongs to a termination of this process. */
    static bool isOf(pid_t process, std::string const& file);
    /** The actor, as far as the file's name tells it. */
    static std::string actorOf(std::string const& file);
    /** Those in the folder, those with the same lock together, up to a number that no folder has
     * unless somebody fills it. */
    std::vector<FolderEntry> list() const;
    bool contains(std::string const& file) const;
    /** When something in the folder last came, went or got another name: nanoseconds since 1970. */
    long long changedAt() const;
    /** A socket for a termination of this process; an invalid one, with a log line, on failure. */
    HiddenSocket bindHidden(TerminationId id) const;
    /** False, with errno, on failure. */
    bool rename(std::string const& from, std::string const& to) const;
    /** True when the file was there and is no more. */
    bool remove(std::string const& file) const;
    /** A connected socket; an invalid one, with errno, on failure. Does not block. */
    OpenSocket connect(std::string const& file) const;

    enum class Socket { Alive, Dead, Absent };
    /** Whether somebody has the entry's socket, also who is stopped, or cannot be asked now, as
     * while somebody has put something else in its place. The other side notices nothing. */
    Socket probe(std::string const& file) const;
    /** Connects and leaves at once, upon which the entry's owner looks whether he still uses the
     * file that is in the folder. */
    void knock(std::string const& file) const { connect(file); }
    /** Knocks, and tells which process of this user listens there, as the kernel noted when it
     * began to; kFree when none does, kUnknown when that cannot be found out now, as when too many
     * others have connected. */
    pid_t listenerOf(std::string const& file) const;
    /** Nothing when it is absent, or on a disk that does not note both. */
    std::optional<EntryTimes> timesOf(std::string const& file) const;
    /** Which file on disk the entry is; nothing when it is absent. */
    std::optional<FileIdentity> identityOf(std::string const& file) const;
    /** The same, with its time, which any disk notes; nothing when it is absent. */
    std::optional<Showing> showingOf(std::string const& file) const;

private:
    EntryFolder(std::string path, Descriptor folder, Descriptor asking,
                std::shared_ptr<PresenceFile> file);

    std::string socketPath(std::string const& file) const;
    Descriptor openEntry(std::string const& file) const;
    int connectTo(std::string const& file, Descriptor const& socket) const;
    int connectBySpare(std::string const& file, Descriptor const& socket) const;
    void keepSpare() const OSW_REQUIRES(spareMutex_);
    void lendSpare() const;

    std::string const path_;
    Descriptor const folder_;
    Descriptor const asking_;  // a socket of another type than the entries': finds who is there
    mutable OSWrap::Mutex spareMutex_;  // a leaf
    /** Given up for a moment to reach an entry when no other descriptor is left: who is dead is
     * seen to be so all the same. Invalid when another thread was faster to use that moment. */
    mutable Descriptor spare_ OSW_GUARDED_BY(spareMutex_);
    mutable OSWrap::Mutex fileMutex_;  // a leaf
    std::shared_ptr<PresenceFile> file_ OSW_GUARDED_BY(fileMutex_);
    /** Formerly in use, and perhaps still held by threads: opening one of them again and closing
     * that would lose its locks. For `reopen` and `use` alone. */
    std::vector<std::weak_ptr<PresenceFile>> former_;
};

}  // namespace Transport
