#include "platform/transport/local/PresenceFile.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "oswrap/Clock.h"
#include "oswrap/Thread.h"
#include "platform/transport/DelayedLog.h"
#include "platform/transport/local/HiddenName.h"

namespace Transport {
namespace {

constexpr char const* kSource = "TransportRendezvous";
constexpr char const* kName = "presence";
constexpr std::size_t kSize = 4096;
constexpr off_t kCounterOffset = 4;
constexpr off_t kCounterLock = 8;
constexpr off_t kLinkLock = 9;
constexpr off_t kOwnerLocks = 0x1000000;
constexpr std::uint32_t kNameIds = 0xFFFF;
/** By how much a name id that was given later may be ahead; they go round. */
constexpr std::uint32_t kRecent = 4096;
/** Attempts, a millisecond apart at last, to get a lock that its owner keeps for a moment. */
constexpr int kCounterLockAttempts = 60;
/** How long a search for a free name id may take: with most of them held one by one it is slow. */
constexpr long long kLongestSearch = 250'000'000;  // nanoseconds
/** How often somebody may take the file away between two looks of ours before we give up. */
constexpr int kOpenAttempts = 20;

long futex(void* word, int operation, std::uint32_t value, std::uintptr_t value2, void* word2,
           std::uint32_t value3) {
    return ::syscall(SYS_futex, word, operation, value, value2, word2, value3);
}

constexpr off_t lockOf(TerminationId id) {
    return kOwnerLocks + static_cast<off_t>(lockKey(id));
}

struct flock byteLock(short type, off_t offset) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = offset;
    lock.l_len = 1;
    return lock;
}

int openIn(int folder) {
    return ::openat(folder, kName, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

/** Gives our own file, whose mode somebody has changed, its mode back. */
bool makeAccessible(int folder) {
    Descriptor const found(::openat(folder, kName, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    return found.valid() && ::fstat(found.get(), &status) == 0 && S_ISREG(status.st_mode) &&
           ::chmod(("/proc/self/fd/" + std::to_string(found.get())).c_str(), 0600) == 0;
}

/** Takes away what bears the file's name and is none: a link, a pipe, an empty folder. */
bool removeImpostor(int folder, std::string const& path) {
    struct stat status;
    if (::fstatat(folder, kName, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    if (S_ISREG(status.st_mode) ||
        ::unlinkat(folder, kName, S_ISDIR(status.st_mode) ? AT_REMOVEDIR : 0) != 0)
        return false;
    static Logging::LineLimit limit;
    TRANSPORT_LOG_LIMITED(limit, 4, kSource, "Removed %s/%s, which was no file", path.c_str(),
                          kName);
    return true;
}

}  // namespace

long long nanosecondsOf(statx_timestamp const& time) {
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

// ---- Opening ------------------------------------------------------------------------------------

/** Invalid, with errno, on failure; ENOENT when there is none, or is none any more. */
Descriptor PresenceFile::openExisting(int folder, std::string const& path) {
    Descriptor file(openIn(folder));
    if (!file.valid() && errno == EACCES && makeAccessible(folder))
        file = Descriptor(openIn(folder));
    int reason = file.valid() ? 0 : errno;
    struct stat status {};
    if (file.valid() && ::fstat(file.get(), &status) != 0)
        return {};
    if (file.valid() && S_ISREG(status.st_mode)) {
        // Processes that come at once may both make it longer: that does no harm.
        if (status.st_size >= static_cast<off_t>(kSize) ||
            ::ftruncate(file.get(), static_cast<off_t>(kSize)) == 0)
            return file;
        reason = errno;
    } else if (reason != ENOENT) {
        bool const removed = removeImpostor(folder, path);
        reason = removed ? ENOENT : file.valid() ? ENOTSUP : reason;
    }
    errno = reason;
    return {};
}

/**
 * A new file that is put into the folder when it is complete: with its last name id, and with its
 * place on the disk, so that nothing written later finds the disk full. Invalid, with errno, on
 * failure; EEXIST when somebody else was faster.
 */
Descriptor PresenceFile::make(int folder, std::uint32_t lastNameId) {
    Descriptor file;
    std::string hidden;
    if (!makeHidden(kName, EEXIST, hidden, [&](std::string const& name) {
            file = Descriptor(::openat(folder, name.c_str(),
                                       O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            return file.valid();
        }))
        return {};
    std::array<char, kSize> content{};
    std::memcpy(content.data() + kCounterOffset, &lastNameId, sizeof lastNameId);
    ssize_t const written = ::pwrite(file.get(), content.data(), content.size(), 0);
    int reason = written < 0 ? errno : ENOSPC;
    if (written == static_cast<ssize_t>(content.size()))
        reason = ::fchmod(file.get(), 0600) == 0 &&
                         ::linkat(folder, hidden.c_str(), folder, kName, 0) == 0
                     ? 0
                     : errno;
    ::unlinkat(folder, hidden.c_str(), 0);
    if (reason != 0)
        file.reset();
    errno = reason;
    return file;
}

std::shared_ptr<PresenceFile> PresenceFile::open(int folder, std::string const& path,
                                                 std::uint32_t lastNameId, std::string& reason) {
    Descriptor file;
    for (int attempt = 0; attempt < kOpenAttempts && !file.valid(); ++attempt) {
        file = openExisting(folder, path);
        if (!file.valid() && errno == ENOENT)
            file = make(folder, lastNameId);
        if (!file.valid() && errno != EEXIST && errno != ENOENT)
            break;
    }
    struct stat status {};
    if (!file.valid() || ::fstat(file.get(), &status) != 0) {
        reason = std::string(kName) + ": " + std::strerror(errno);
        return nullptr;
    }
    if (status.st_uid != ::geteuid()) {
        reason = std::string(kName) + " is not a file of ours";
        return nullptr;
    }
    std::unique_ptr<PresenceFile> opened(
        new PresenceFile(path, std::move(file), {status.st_dev, status.st_ino}));
    if (opened->map())
        return opened;
    reason = std::string("cannot map ") + kName + ": " + std::strerror(errno);
    return nullptr;
}

PresenceFile::PresenceFile(std::string path, Descriptor file, Identity identity)
    : path_(std::move(path)), file_(std::move(file)), identity_(identity), mapping_(MAP_FAILED) {}

bool PresenceFile::map() {
    mapping_ = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
    return mapping_ != MAP_FAILED;
}

PresenceFile::~PresenceFile() {
    if (mapping_ != MAP_FAILED)
        ::munmap(mapping_, kSize);
}

bool PresenceFile::isIn(int folder) const {
    struct stat status;
    return ::fstatat(folder, kName, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           status.st_dev == identity_.device && status.st_ino == identity_.inode;
}

std::optional<long long> PresenceFile::madeAt() const {
    struct statx status;
    if (::statx(file_.get(), "", AT_EMPTY_PATH, STATX_BTIME, &status) != 0 ||
        (status.stx_mask & STATX_BTIME) == 0)
        return std::nullopt;
    return nanosecondsOf(status.stx_btime);
}

bool PresenceFile::isSameAs(PresenceFile const& other) const {
    return identity_.device == other.identity_.device && identity_.inode == other.identity_.inode;
}

// ---- Name ids and their locks -------------------------------------------------------------------

bool PresenceFile::lockByte(short type, off_t offset) const {
    struct flock const lock = byteLock(type, offset);
    return ::fcntl(file_.get(), F_SETLK, &lock) == 0;
}

/** False when its owner seems to be stopped: then we go on without, at the risk that a name id is
 * given again sooner than we like. Never twice at the same time: of that its own lock takes care.
 */
bool PresenceFile::lockCounter() const {
    for (int attempt = 0; attempt < kCounterLockAttempts; ++attempt) {
        if (lockByte(F_WRLCK, kCounterLock))
            return true;
        if (attempt < kCounterLockAttempts / 2)
            ::sched_yield();
        else
            OSWrap::Thread::sleep(0, 1'000'000);
    }
    struct flock holder = byteLock(F_WRLCK, kCounterLock);
    bool const known = ::fcntl(file_.get(), F_GETLK, &holder) == 0 && holder.l_type != F_UNLCK;
    static Logging::LineLimit limit;
    TRANSPORT_LOG_LIMITED(limit, 4, kSource,
                          "Process %d keeps the last name id of %s/%s locked: taking one without",
                          static_cast<int>(known ? holder.l_pid : 0), path_.c_str(), kName);
    return false;
}

std::uint32_t PresenceFile::lastNameId() const {
    std::uint32_t last = 0;
    if (::pread(file_.get(), &last, sizeof last, kCounterOffset) != sizeof last)
        last = 0;
    return last;
}

bool PresenceFile::writeLastNameId(std::uint32_t nameId) const {
    ssize_t const written = ::pwrite(file_.get(), &nameId, sizeof nameId, kCounterOffset);
    if (written == sizeof nameId)
        return true;
    TRANSPORT_LOG(3, kSource, "Cannot write %s/%s: %s", path_.c_str(), kName,
                  std::strerror(written < 0 ? errno : ENOSPC));
    return false;
}

std::uint32_t PresenceFile::laterOf(std::uint32_t nameId, std::uint32_t recent) {
    if (nameId == 0 || recent == 0)
        return nameId == 0 ? recent : nameId;
    std::uint32_t const ahead = (recent % kNameIds + kNameIds - nameId % kNameIds) % kNameIds;
    return ahead <= kRecent ? recent : nameId;
}

/** Passes over ranges of locks in one step. `last` becomes the name id that was tried last. */
unsigned short PresenceFile::searchName(std::uint32_t& last, unsigned char slot,
                                        std::function<bool(unsigned short)> const& usable) {
    long long const deadline = OSWrap::Clock::nowNanoseconds() + kLongestSearch;
    pid_t holder = kFree;
    for (std::uint32_t tried = 0; tried < kNameIds;) {
        std::uint32_t const next = last % kNameIds + 1;
        auto const nameId = static_cast<unsigned short>(next);
        std::uint32_t step = 1;
        if (usable(nameId)) {
            TerminationId const id(nameId, slot, GRPID_UNDEF);
            if (lockName(id))
                return nameId;
            struct flock held = byteLock(F_WRLCK, lockOf(id));
            if (::fcntl(file_.get(), F_GETLK, &held) == 0 && held.l_type != F_UNLCK) {
                holder = held.l_pid;
                off_t const left =
                    held.l_len == 0 ? off_t{kNameIds} : held.l_start + held.l_len - lockOf(id);
                step = static_cast<std::uint32_t>(
                    std::clamp(left, off_t{1}, off_t{kNameIds} - next + 1));
            }
        }
        last = next + step - 1;
        tried += step;
        if (OSWrap::Clock::nowNanoseconds() >= deadline)
            break;
    }
    TRANSPORT_LOG(
        3, kSource,
        "No name id is left in the rendezvous folder %s; process %d holds the lock of the "
        "last one tried",
        path_.c_str(), static_cast<int>(holder));
    return 0;
}

/** The lock of the counter, if it can be had, for a scope. */
class PresenceFile::CounterLock {
public:
    explicit CounterLock(PresenceFile const& file) : file_(file), locked_(file.lockCounter()) {}
    ~CounterLock() {
        if (locked_)
            file_.lockByte(F_UNLCK, kCounterLock);
    }
    CounterLock(CounterLock const&) = delete;
    CounterLock& operator=(CounterLock const&) = delete;

private:
    PresenceFile const& file_;
    bool const locked_;
};

PresenceFile::NameLock PresenceFile::takeName(std::uint32_t hint, unsigned char slot,
                                              std::function<bool(unsigned short)> const& usable) {
    CounterLock const counter(*this);
    std::uint32_t last = laterOf(lastNameId(), hint);
    NameLock taken(*this, TerminationId(searchName(last, slot, usable), slot, GRPID_UNDEF));
    if (!writeLastNameId(taken.nameId() != 0 ? taken.nameId() : last))
        return NameLock();
    return taken;
}

bool PresenceFile::lockName(TerminationId id) {
    return lockByte(F_WRLCK, lockOf(id));
}

void PresenceFile::unlockName(TerminationId id) {
    lockByte(F_UNLCK, lockOf(id));
}

pid_t PresenceFile::ownerOf(TerminationId id) const {
    return holderOf(lockOf(id));
}

bool PresenceFile::lockLink() const {
    return lockByte(F_WRLCK, kLinkLock);
}

void PresenceFile::unlockLink() const {
    lockByte(F_UNLCK, kLinkLock);
}

pid_t PresenceFile::linkOwner() const {
    return holderOf(kLinkLock);
}

pid_t PresenceFile::holderOf(off_t offset) const {
    struct flock lock = byteLock(F_WRLCK, offset);
    if (::fcntl(file_.get(), F_GETLK, &lock) != 0)
        return kUnknown;
    if (lock.l_type == F_UNLCK)
        return kFree;
    return lock.l_pid > 0 ? lock.l_pid : kUnknown;
}

// ---- Announcements ------------------------------------------------------------------------------

/** Gives a file that was cut short its length back. */
void PresenceFile::repair() const {
    struct stat status;
    if (::fstat(file_.get(), &status) != 0 || status.st_size >= static_cast<off_t>(kSize) ||
        ::ftruncate(file_.get(), static_cast<off_t>(kSize)) != 0)
        return;
    static Logging::LineLimit limit;
    TRANSPORT_LOG_LIMITED(limit, 3, kSource, "%s/%s had been cut short and was mended",
                          path_.c_str(), kName);
}

void PresenceFile::announce() const {
    constexpr std::uint32_t addOne = FUTEX_OP(FUTEX_OP_ADD, 1, FUTEX_OP_CMP_GE, 0);
    // The kernel adds and wakes in one step.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (futex(mapping_, FUTEX_WAKE_OP, INT_MAX, INT_MAX, mapping_, addOne) >= 0)
            return;
        if (errno == EFAULT)
            repair();
        else if (errno != EAGAIN && errno != EINTR)
            break;
    }
    static Logging::LineLimit limit;
    TRANSPORT_LOG_LIMITED(limit, 3, kSource, "Cannot announce a change in %s: %s", path_.c_str(),
                          std::strerror(errno));
}

std::uint32_t PresenceFile::announcements() const {
    std::uint32_t word = 0;
    if (::pread(file_.get(), &word, sizeof word, 0) != sizeof word)
        word = 0;
    return word;
}

void PresenceFile::waitForAnnouncement(std::uint32_t seen, long long nanoseconds) const {
    struct {
        long seconds;
        long nanoseconds;
    } const time{static_cast<long>(nanoseconds / 1'000'000'000),
                 static_cast<long>(nanoseconds % 1'000'000'000)};
    auto const limit = nanoseconds < 0 ? 0 : reinterpret_cast<std::uintptr_t>(&time);
    if (futex(mapping_, FUTEX_WAIT, seen, limit, nullptr, 0) == 0 || errno == EAGAIN ||
        errno == EINTR || errno == ETIMEDOUT)
        return;
    if (errno == EFAULT)
        repair();
    OSWrap::Thread::sleep(0, 50'000'000);  // so that a failing system call does not eat a processor
}

}  // namespace Transport
