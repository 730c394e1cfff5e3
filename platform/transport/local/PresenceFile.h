#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/transport/local/Descriptor.h"
#include "transport/TerminationId.h"

struct statx_timestamp;

namespace Transport {

/** Nanoseconds since the epoch, of a time that the kernel has noted for a file. */
long long nanosecondsOf(statx_timestamp const& time);

/** Slot and name id: whose these are, in whatever group, is told by one lock. */
constexpr std::uint32_t lockKey(TerminationId id) {
    return id.value() & 0xFFFFFF;
}
struct PrecedesByLock {
    bool operator()(TerminationId one, TerminationId other) const {
        return lockKey(one) < lockKey(other);
    }
};

/**
 * The file `presence` of a rendezvous folder: the locks by which everybody sees who lives, and the
 * word that announces changes.
 *
 * | offset | bytes | meaning |
 * |---|---|---|
 * | 0 | 4 | raised at each change of the folder; a futex for all who wait for one |
 * | 4 | 4 | the name id that was given last; 0: not known |
 * | 8 | lock | held for a moment while the last name id is read and written |
 * | 9 | lock | held by the process that shows terminations of other machines here |
 * | 0x1000000 + slot * 0x10000 + name id | lock | held by the process that owns the name id in this
 * slot |
 *
 * The locks are fcntl record locks, because these name their owner's process id and end with it.
 * Such locks are also lost when a process closes any descriptor of the file: each process opens it
 * once and keeps it. No program code reads or writes the file through its mapping, which only the
 * kernel's futex operations use: a file that someone cuts short cannot fault.
 *
 * The file comes into view complete. It goes on working for those who have it when somebody takes
 * it out of the folder, but a lock in it then proves nothing to others: they may use its successor.
 *
 * Only system calls and constant descriptors: any thread.
 */
class PresenceFile {
public:
    static constexpr pid_t kFree = 0;
    static constexpr pid_t kUnknown = -1;  // held, by a process that cannot be named

    /** Opens the file in the folder, which log lines call `path`. When there is none it is made,
     * with `lastNameId` as the last name id. Null on failure, whose reason then is in `reason`. */
    static std::shared_ptr<PresenceFile> open(int folder, std::string const& path,
                                              std::uint32_t lastNameId, std::string& reason);
    ~PresenceFile();
    PresenceFile(PresenceFile const&) = delete;
    PresenceFile& operator=(PresenceFile const&) = delete;

    /** Whether it still is the one that everybody finds in the folder. */
    bool isIn(int folder) const;
    bool isSameAs(PresenceFile const& other) const;
    /** When it was made, in nanoseconds since the epoch; nothing on a disk that does not note it.
     */
    std::optional<long long> madeAt() const;

    // ---- Name ids and their locks ----

    /** The lock of a name id that this process has taken. A resource that can be moved: lets go of
     * it at its end, unless it has been kept. The file lives longer. */
    class NameLock;

    /** Of two name ids the one that was given later, when the second was given lately; 0: none. */
    static std::uint32_t laterOf(std::uint32_t nameId, std::uint32_t recent);
    /** Takes the lock of the next name id, after the last that was given, that nobody holds in
     * `slot` and that `usable` accepts. `hint` is the last name id that the caller knows of, for a
     * file that has missed some. That of 0, with a log line, when there is none or the file cannot
     * be written. May wait for others, for less than half a second in all. */
    NameLock takeName(std::uint32_t hint, unsigned char slot,
                      std::function<bool(unsigned short)> const& usable);
    /** The name id that was given last; 0 when that is not known. */
    std::uint32_t lastNameId() const;
    /** Takes the lock of the id's slot and name id, whatever its group, for this process. Says
     * nothing of those already its own. */
    bool lockName(TerminationId id);
    void unlockName(TerminationId id);
    /** The process that holds that; kFree also when it is this process. */
    pid_t ownerOf(TerminationId id) const;
    /** Takes the lock of the one process that is the link to other machines. */
    bool lockLink() const;
    void unlockLink() const;
    /** That process; kFree also when it is this one. */
    pid_t linkOwner() const;

    // ---- Announcements ----

    /** Tells all processes that use this file that the folder has changed. */
    void announce() const;
    std::uint32_t announcements() const;
    /** Returns when the word differs from `seen`, after `nanoseconds` if these are not negative,
     * and now and then without a reason. */
    void waitForAnnouncement(std::uint32_t seen, long long nanoseconds) const;

private:
    struct Identity {
        dev_t device;
        ino_t inode;
    };

    PresenceFile(std::string path, Descriptor file, Identity identity);

    static Descriptor openExisting(int folder, std::string const& path);
    static Descriptor make(int folder, std::uint32_t lastNameId);
    bool lockByte(short type, off_t offset) const;
    pid_t holderOf(off_t offset) const;
    class CounterLock;
    bool map();
    bool lockCounter() const;
    unsigned short searchName(std::uint32_t& last, unsigned char slot,
                              std::function<bool(unsigned short)> const& usable);
    bool writeLastNameId(std::uint32_t nameId) const;
    void repair() const;

    std::string const path_;
    Descriptor const file_;
    Identity const identity_;
    void* mapping_;  // of the announcing word's page; constant once opened
};

class PresenceFile::NameLock {
public:
    NameLock() = default;
    NameLock(PresenceFile& file, TerminationId id) : file_(&file), id_(id) {}
    NameLock(NameLock&& other) noexcept : file_(other.file_), id_(other.keep()) {}
    NameLock& operator=(NameLock&&) = delete;
    ~NameLock() {
        if (nameId() != 0)
            file_->unlockName(id_);
    }

    unsigned short nameId() const { return id_.nameId(); }
    /** Whether the owner of `id` would have to hold it. */
    bool covers(TerminationId id) const { return nameId() != 0 && lockKey(id_) == lockKey(id); }
    bool isIn(PresenceFile const& file) const { return file_ == &file; }
    TerminationId keep() { return std::exchange(id_, TerminationId()); }

private:
    PresenceFile* file_ = nullptr;
    TerminationId id_;  // without a group; name id 0: none
};

}  // namespace Transport
