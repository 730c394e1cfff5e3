#include "platform/transport/local/EntryFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "oswrap/Thread.h"
#include "platform/transport/DelayedLog.h"

namespace Transport {
namespace {

constexpr char const* kSource = "TransportRendezvous";
constexpr char const* kSharedFile = "presence";
constexpr char const* kHiddenPrefix = ".new-";
constexpr off_t kSharedSize = 4096;
constexpr off_t kCounterOffset = 4;
constexpr off_t kOwnerLocks = 0x10000;
constexpr off_t kCounterLock = 0x20000;
constexpr std::size_t kIdDigits = 8;
/** A socket's path has 108 bytes, of which "/proc/self/fd/", the number, the hidden prefix and the
 * end take up to 31. */
constexpr std::size_t kLongestFileName = 76;
constexpr std::size_t kLongestActorPart = 24;
/** Attempts, a millisecond apart at last, to get a lock that its owner keeps for a moment. */
constexpr int kCounterLockAttempts = 60;

/** Letters that are harmless in a shell stay, others become "_". */
std::string harmless(std::string text) {
    auto const isHarmless = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '_';
    };
    for (char& c : text)
        if (!isHarmless(c))
            c = '_';
    return text;
}

/** The id at the head of a file name: eight lower-case hexadecimal digits and a point. */
std::optional<TerminationId> idOf(char const* file) {
    unsigned int value = 0;
    for (std::size_t i = 0; i < kIdDigits; ++i) {
        char const c = file[i];
        if (c >= '0' && c <= '9')
            value = value << 4 | static_cast<unsigned int>(c - '0');
        else if (c >= 'a' && c <= 'f')
            value = value << 4 | static_cast<unsigned int>(c - 'a' + 10);
        else
            return std::nullopt;
    }
    TerminationId const id(value);
    if (file[kIdDigits] != '.' || id.nameId() == 0)
        return std::nullopt;
    return id;
}

bool isPrivate(struct stat const& status) {
    return status.st_uid == ::geteuid() && (status.st_mode & 0777) == 0700;
}

Descriptor refuse(std::string const& path, std::string const& reason) {
    TRANSPORT_LOG(3, kSource, "The rendezvous folder %s is refused: %s", path.c_str(),
                  reason.c_str());
    return Descriptor();
}

/** The folder's descriptor; what is checked is what was opened, so nobody can change it between. */
Descriptor openFolder(std::string const& path) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        return refuse(path, std::string("cannot make it: ") + std::strerror(errno));
    Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.valid())
        return refuse(path, errno == ELOOP || errno == ENOTDIR
                                ? "it is a symbolic link or no folder"
                                : std::strerror(errno));
    struct stat status;
    if (::fstat(folder.get(), &status) != 0)
        return refuse(path, std::strerror(errno));
    if (isPrivate(status))
        return folder;
    char reason[120];
    std::snprintf(reason, sizeof reason,
                  "it has owner %lu and mode %04o, and must have owner %lu and mode 0700",
                  static_cast<unsigned long>(status.st_uid),
                  static_cast<unsigned int>(status.st_mode & 07777),
                  static_cast<unsigned long>(::geteuid()));
    return refuse(path, reason);
}

Descriptor openShared(Descriptor const& folder, std::string const& path) {
    Descriptor shared(::openat(folder.get(), kSharedFile,
                               O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    struct stat status;
    if (!shared.valid() || ::fstat(shared.get(), &status) != 0)
        return refuse(path, std::string(kSharedFile) + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid())
        return refuse(path, std::string(kSharedFile) + " is not a file of ours");
    // Processes that start at once may both make it longer: that does no harm.
    if (status.st_size < kSharedSize && ::ftruncate(shared.get(), kSharedSize) != 0)
        return refuse(path, std::string(kSharedFile) + ": " + std::strerror(errno));
    return shared;
}

/** What `make` answers, asked once more when there were too few descriptors and more may be had. */
template <class Make>
int withEnoughDescriptors(Make make) {
    int const made = make();
    return made < 0 && errno == EMFILE && raiseDescriptorLimit() ? make() : made;
}

long futex(void* word, int operation, std::uint32_t value, std::uintptr_t value2, void* word2,
           std::uint32_t value3) {
    return ::syscall(SYS_futex, word, operation, value, value2, word2, value3);
}

}  // namespace

std::unique_ptr<EntryFolder> EntryFolder::open(std::string const& path) {
    Descriptor folder = openFolder(path);
    if (!folder.valid())
        return nullptr;
    Descriptor shared = openShared(folder, path);
    if (!shared.valid())
        return nullptr;
    void* const mapping = ::mmap(nullptr, static_cast<std::size_t>(kSharedSize),
                                 PROT_READ | PROT_WRITE, MAP_SHARED, shared.get(), 0);
    if (mapping == MAP_FAILED) {
        refuse(path, std::string("cannot map ") + kSharedFile + ": " + std::strerror(errno));
        return nullptr;
    }
    // Cleaners of temporary folders leave a folder alone that somebody has locked.
    static_cast<void>(::flock(folder.get(), LOCK_SH | LOCK_NB));
    return std::unique_ptr<EntryFolder>(
        new EntryFolder(path, std::move(folder), std::move(shared), mapping));
}

EntryFolder::EntryFolder(std::string path, Descriptor folder, Descriptor shared, void* mapping)
    : path_(std::move(path)),
      folder_(std::move(folder)),
      shared_(std::move(shared)),
      mapping_(mapping) {}

EntryFolder::~EntryFolder() {
    ::munmap(mapping_, static_cast<std::size_t>(kSharedSize));
}

// ---- Name ids and their locks -------------------------------------------------------------------

bool EntryFolder::lockByte(short type, off_t offset) const {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = offset;
    lock.l_len = 1;
    return ::fcntl(shared_.get(), F_SETLK, &lock) == 0;
}

/** False when its owner seems to be stopped: then we go on without, at the risk that a name id is
 * given again sooner than we like. Never twice at the same time: of that its own lock takes care.
 */
bool EntryFolder::lockCounter() const {
    for (int attempt = 0; attempt < kCounterLockAttempts; ++attempt) {
        if (lockByte(F_WRLCK, kCounterLock))
            return true;
        if (attempt < kCounterLockAttempts / 2)
            ::sched_yield();
        else
            OSWrap::Thread::sleep(0, 1'000'000);
    }
    return false;
}

unsigned short EntryFolder::nextNameId() {
    bool const locked = lockCounter();
    std::uint32_t last = 0;
    if (::pread(shared_.get(), &last, sizeof last, kCounterOffset) != sizeof last)
        last = 0;
    std::uint32_t const next = last % 0xFFFF + 1;
    if (::pwrite(shared_.get(), &next, sizeof next, kCounterOffset) != sizeof next)
        TRANSPORT_LOG(3, kSource, "Cannot write %s/%s: %s", path_.c_str(), kSharedFile,
                      std::strerror(errno));
    if (locked)
        lockByte(F_UNLCK, kCounterLock);
    return static_cast<unsigned short>(next);
}

bool EntryFolder::lockName(unsigned short nameId) {
    return lockByte(F_WRLCK, kOwnerLocks + nameId);
}

void EntryFolder::unlockName(unsigned short nameId) {
    lockByte(F_UNLCK, kOwnerLocks + nameId);
}

pid_t EntryFolder::ownerOf(unsigned short nameId) const {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = kOwnerLocks + nameId;
    lock.l_len = 1;
    if (::fcntl(shared_.get(), F_GETLK, &lock) != 0)
        return kUnknown;
    if (lock.l_type == F_UNLCK)
        return kFree;
    return lock.l_pid > 0 ? lock.l_pid : kUnknown;
}

// ---- Entries ------------------------------------------------------------------------------------

std::string EntryFolder::fileName(TerminationId id, std::string const& actor,
                                  std::string const& name) {
    char head[64];
    std::snprintf(head, sizeof head, "%08x.group%u.slot%u.pid%d.", id.value(), id.groupId(),
                  id.slotId(), static_cast<int>(::getpid()));
    std::string file = head + harmless(actor.substr(0, kLongestActorPart));
    if (!name.empty())
        file += "." + harmless(name);
    return file.substr(0, kLongestFileName);
}

std::vector<FolderEntry> EntryFolder::list() const {
    std::vector<FolderEntry> entries;
    // A descriptor of its own: those that are duplicated share their place in the folder.
    int const descriptor = withEnoughDescriptors([this] {
        return ::openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    });
    DIR* const folder = descriptor >= 0 ? ::fdopendir(descriptor) : nullptr;
    if (folder == nullptr) {
        TRANSPORT_LOG(3, kSource, "Cannot read the rendezvous folder %s: %s", path_.c_str(),
                      std::strerror(errno));
        if (descriptor >= 0)
            ::close(descriptor);
        return entries;
    }
    std::size_t const prefix = std::strlen(kHiddenPrefix);
    while (dirent const* const found = ::readdir(folder)) {
        bool const hidden = std::strncmp(found->d_name, kHiddenPrefix, prefix) == 0;
        auto const id = idOf(found->d_name + (hidden ? prefix : 0));
        if (id && (found->d_type == DT_SOCK || found->d_type == DT_UNKNOWN))
            entries.push_back({*id, found->d_name, hidden});
    }
    ::closedir(folder);
    return entries;
}

bool EntryFolder::contains(std::string const& file) const {
    return ::faccessat(folder_.get(), file.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0 ||
           errno != ENOENT;
}

std::string EntryFolder::socketPath(std::string const& file) const {
    return "/proc/self/fd/" + std::to_string(folder_.get()) + "/" + file;
}

namespace {

sockaddr_un addressOf(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

Descriptor makeSocket() {
    return Descriptor(withEnoughDescriptors(
        [] { return ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }));
}

}  // namespace

Descriptor EntryFolder::listenHidden(std::string const& file) const {
    std::string const hidden = kHiddenPrefix + file;
    sockaddr_un const address = addressOf(socketPath(hidden));
    Descriptor socket = makeSocket();
    if (socket.valid() &&
        ::bind(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 &&
        ::fchmodat(folder_.get(), hidden.c_str(), 0600, 0) == 0 &&
        ::listen(socket.get(), SOMAXCONN) == 0)
        return socket;
    TRANSPORT_LOG(3, kSource, "Cannot make the socket %s in %s: %s", file.c_str(), path_.c_str(),
                  std::strerror(errno));
    remove(hidden);
    return Descriptor();
}

bool EntryFolder::show(std::string const& file) const {
    std::string const hidden = kHiddenPrefix + file;
    if (::renameat(folder_.get(), hidden.c_str(), folder_.get(), file.c_str()) == 0)
        return true;
    TRANSPORT_LOG(3, kSource, "Cannot show the socket %s in %s: %s", file.c_str(), path_.c_str(),
                  std::strerror(errno));
    remove(hidden);
    return false;
}

bool EntryFolder::remove(std::string const& file) const {
    return ::unlinkat(folder_.get(), file.c_str(), 0) == 0;
}

Descriptor EntryFolder::connect(std::string const& file) const {
    sockaddr_un const address = addressOf(socketPath(file));
    Descriptor socket = makeSocket();
    if (!socket.valid() ||
        ::connect(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0)
        return socket;
    int const reason = errno;
    socket = Descriptor();
    errno = reason;
    return socket;
}

// ---- Announcements ------------------------------------------------------------------------------

/** Gives a file that was cut short its length back. */
void EntryFolder::repair() const {
    struct stat status;
    if (::fstat(shared_.get(), &status) == 0 && status.st_size < kSharedSize &&
        ::ftruncate(shared_.get(), kSharedSize) == 0)
        TRANSPORT_LOG(3, kSource, "%s/%s had been cut short and was mended", path_.c_str(),
                      kSharedFile);
}

void EntryFolder::announce() const {
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
    TRANSPORT_LOG(3, kSource, "Cannot announce a change in %s: %s", path_.c_str(),
                  std::strerror(errno));
}

std::uint32_t EntryFolder::announcements() const {
    std::uint32_t word = 0;
    if (::pread(shared_.get(), &word, sizeof word, 0) != sizeof word)
        word = 0;
    return word;
}

void EntryFolder::waitForAnnouncement(std::uint32_t seen) const {
    if (futex(mapping_, FUTEX_WAIT, seen, 0, nullptr, 0) == 0 || errno == EAGAIN || errno == EINTR)
        return;
    if (errno == EFAULT)
        repair();
    OSWrap::Thread::sleep(0, 50'000'000);  // so that a failing system call does not eat a processor
}

}  // namespace Transport
