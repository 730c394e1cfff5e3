#include "platform/transport/local/EntryFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "oswrap/Lock.h"
#include "platform/transport/DelayedLog.h"
#include "platform/transport/local/HiddenName.h"
#include "platform/transport/local/Packet.h"
#include "platform/transport/local/PresenceTable.h"

namespace Transport {
namespace {

constexpr char const* kSource = "TransportRendezvous";
constexpr std::size_t kIdDigits = 8;
/** A socket's path has 108 bytes, of which "/proc/self/fd/", the number, a slash and the end take
 * up to 26. */
constexpr std::size_t kLongestFileName = 76;
constexpr std::size_t kLongestActorPart = 24;
/** Twice the name ids: each may have a hidden entry. More are left for the next reading. */
constexpr std::size_t kMostEntries = PresenceTable::kMostOfProcess;

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

/** What follows the id in a file name. */
constexpr char markOf(Visibility visibility) {
    return visibility == Visibility::Member ? '.' : '~';
}

/** The id at the head of a file name: eight lower-case hexadecimal digits and a mark. */
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
    char const mark = file[kIdDigits];
    if ((mark != markOf(Visibility::Member) && mark != markOf(Visibility::Silent)) ||
        id.nameId() == 0)
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

/** With a slash at its end, a path would follow a link that stands before it. */
std::string withoutSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
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

/** What `make` answers, asked once more when there were too few descriptors and more may be had. */
template <class Make>
int withEnoughDescriptors(Make make) {
    int const made = make();
    return made < 0 && errno == EMFILE && raiseDescriptorLimit() ? make() : made;
}

std::string pathOf(Descriptor const& folder) {
    return "/proc/self/fd/" + std::to_string(folder.get());
}

bool reachesThroughProc(Descriptor const& folder) {
    struct stat there;
    struct stat here;
    return ::stat(pathOf(folder).c_str(), &there) == 0 && ::fstat(folder.get(), &here) == 0 &&
           there.st_dev == here.st_dev && there.st_ino == here.st_ino;
}

}  // namespace

std::unique_ptr<EntryFolder> EntryFolder::open(std::string const& givenPath) {
    std::string const path = withoutSlashes(givenPath);
    Descriptor folder = openFolder(path);
    if (!folder.valid())
        return nullptr;
    if (!reachesThroughProc(folder)) {
        refuse(path, "its sockets are reached through /proc, which is not mounted");
        return nullptr;
    }
    Descriptor asking(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    std::string reason = std::strerror(errno);
    std::shared_ptr<PresenceFile> file;
    if (asking.valid())
        file = PresenceFile::open(folder.get(), path, 0, reason);
    if (file == nullptr) {
        refuse(path, reason);
        return nullptr;
    }
    // Cleaners of temporary folders leave a folder alone that somebody has locked.
    static_cast<void>(::flock(folder.get(), LOCK_SH | LOCK_NB));
    return std::unique_ptr<EntryFolder>(
        new EntryFolder(path, std::move(folder), std::move(asking), std::move(file)));
}

EntryFolder::EntryFolder(std::string path, Descriptor folder, Descriptor asking,
                         std::shared_ptr<PresenceFile> file)
    : path_(std::move(path)),
      folder_(std::move(folder)),
      asking_(std::move(asking)),
      file_(std::move(file)) {
    OSWrap::Lock<> lock(spareMutex_);
    keepSpare();
}

// ---- The file with the locks --------------------------------------------------------------------

std::shared_ptr<PresenceFile> EntryFolder::file() const {
    OSWrap::Lock<> lock(fileMutex_);
    return file_;
}

std::shared_ptr<PresenceFile> EntryFolder::reopen(std::uint32_t lastNameId) {
    std::shared_ptr<PresenceFile> const inUse = file();
    std::string reason;
    lendSpare();
    auto opened = PresenceFile::open(folder_.get(), path_, lastNameId, reason);
    if (opened == nullptr) {
        static Logging::LineLimit limit;
        TRANSPORT_LOG_LIMITED(limit, 3, kSource,
                              "Somebody has replaced a file of the rendezvous folder %s, and "
                              "newcomers find nobody: %s",
                              path_.c_str(), reason.c_str());
        return nullptr;
    }
    former_.erase(std::remove_if(former_.begin(), former_.end(),
                                 [](auto const& former) { return former.expired(); }),
                  former_.end());
    if (opened->isSameAs(*inUse))
        return inUse;
    for (auto const& weak : former_)
        if (auto const former = weak.lock(); former != nullptr && former->isSameAs(*opened))
            return former;
    return opened;
}

void EntryFolder::use(std::shared_ptr<PresenceFile> file) {
    OSWrap::Lock<> lock(fileMutex_);
    if (file == file_)
        return;
    former_.push_back(file_);
    file_.swap(file);
}

// ---- Entries ------------------------------------------------------------------------------------

std::string EntryFolder::fileName(TerminationId id, std::string const& actor,
                                  std::string const& name, Visibility visibility) {
    char head[64];
    std::snprintf(head, sizeof head, "%08x%cgroup%u.slot%u.pid%d.", id.value(), markOf(visibility),
                  id.groupId(), id.slotId(), static_cast<int>(::getpid()));
    std::string file = head + harmless(actor.substr(0, kLongestActorPart));
    if (!name.empty())
        file += "." + harmless(name);
    return file.substr(0, kLongestFileName);
}

bool EntryFolder::isOf(pid_t process, std::string const& file) {
    return file.find(".pid" + std::to_string(process) + ".") != std::string::npos;
}

std::string EntryFolder::actorOf(std::string const& file) {
    std::size_t const process = file.find(".pid");
    std::size_t const end = process == std::string::npos ? process : file.find('.', process + 1);
    return end == std::string::npos ? "" : file.substr(end + 1, file.find('.', end + 1) - end - 1);
}

namespace {

struct CloseFolder {
    void operator()(DIR* folder) const { ::closedir(folder); }
};

}  // namespace

std::vector<FolderEntry> EntryFolder::list() const {
    std::vector<FolderEntry> entries;
    lendSpare();
    // A descriptor of its own: those that are duplicated share their place in the folder.
    int const descriptor = withEnoughDescriptors([this] {
        return ::openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    });
    std::unique_ptr<DIR, CloseFolder> const folder(descriptor >= 0 ? ::fdopendir(descriptor)
                                                                   : nullptr);
    if (folder == nullptr) {
        bool const noMemory = errno == ENOMEM;
        static Logging::LineLimit limit;
        TRANSPORT_LOG_LIMITED(limit, 3, kSource, "Cannot read the rendezvous folder %s: %s",
                              path_.c_str(), std::strerror(errno));
        if (descriptor >= 0)
            ::close(descriptor);
        if (noMemory)
            throw std::bad_alloc();  // an empty folder is something else
        return entries;
    }
    std::size_t const prefix = std::strlen(kHiddenPrefix);
    while (entries.size() < kMostEntries) {
        dirent const* const found = ::readdir(folder.get());
        if (found == nullptr)
            break;
        bool const hidden = std::strncmp(found->d_name, kHiddenPrefix, prefix) == 0;
        char const* const name = found->d_name + (hidden ? prefix : 0);
        auto const id = idOf(name);
        if (id && (found->d_type == DT_SOCK || found->d_type == DT_UNKNOWN))
            entries.push_back({*id, found->d_name, hidden,
                               name[kIdDigits] == markOf(Visibility::Silent) ? Visibility::Silent
                                                                             : Visibility::Member});
    }
    std::sort(entries.begin(), entries.end(), FolderEntry::precedes);
    OSWrap::Lock<> lock(spareMutex_);
    keepSpare();
    return entries;
}

bool EntryFolder::contains(std::string const& file) const {
    return ::faccessat(folder_.get(), file.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0 ||
           errno != ENOENT;
}

// Not the time of modification, which everybody may set.
long long EntryFolder::changedAt() const {
    struct stat status;
    if (::fstat(folder_.get(), &status) != 0)
        return 0;
    return status.st_ctim.tv_sec * 1'000'000'000LL + status.st_ctim.tv_nsec;
}

std::string EntryFolder::socketPath(std::string const& file) const {
    return pathOf(folder_) + "/" + file;
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

HiddenSocket EntryFolder::bindHidden(TerminationId id) const {
    char head[kIdDigits + 1];
    std::snprintf(head, sizeof head, "%08x", id.value());
    Descriptor socket = makeSocket();
    std::string file;
    auto const bind = [&](std::string const& name) {
        sockaddr_un const address = addressOf(socketPath(name));
        return ::bind(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) ==
               0;
    };
    bool const bound = socket.valid() && makeHidden(head, EADDRINUSE, file, bind);
    auto const protect = [&] {  // which may need a descriptor
        return ::fchmodat(folder_.get(), file.c_str(), 0600, AT_SYMLINK_NOFOLLOW);
    };
    if (bound && withEnoughDescriptors(protect) == 0)
        return HiddenSocket(*this, std::move(file), std::move(socket));
    TRANSPORT_LOG(3, kSource, "Cannot make the socket %s in %s: %s", head, path_.c_str(),
                  std::strerror(errno));
    if (bound)
        remove(file);
    return HiddenSocket();
}

HiddenSocket::~HiddenSocket() {
    if (valid())
        folder_->remove(file_);
}

bool HiddenSocket::show(std::string& file) const {
    if (::listen(socket_.get(), SOMAXCONN) == 0 && folder_->rename(file_, file))
        return true;
    if (errno == EISDIR) {
        file.resize(std::min(file.size(), kLongestFileName - kUnforeseenDigits - 1));
        file += "." + unforeseenDigits();
        if (folder_->rename(file_, file))
            return true;
    }
    TRANSPORT_LOG(3, kSource, "Cannot show the socket %s in %s: %s", file.c_str(),
                  folder_->path().c_str(), std::strerror(errno));
    return false;
}

void HiddenSocket::hide(std::string const& file) const {
    folder_->rename(file, file_);
}

bool EntryFolder::rename(std::string const& from, std::string const& to) const {
    return ::renameat(folder_.get(), from.c_str(), folder_.get(), to.c_str()) == 0;
}

bool EntryFolder::remove(std::string const& file) const {
    return ::unlinkat(folder_.get(), file.c_str(), 0) == 0;
}

/** The entry itself: were it a link, the system would look for what it points to, which may be in a
 * file system that never answers. */
Descriptor EntryFolder::openEntry(std::string const& file) const {
    return Descriptor(::openat(folder_.get(), file.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

namespace {

bool isSocket(Descriptor const& entry) {
    struct stat status;
    return ::fstat(entry.get(), &status) != 0 || S_ISSOCK(status.st_mode);
}

/** 0, or -1 with errno, which may be that of opening the entry; ENOTSOCK where something else is in
 * its place. */
int connectThrough(Descriptor const& entry, Descriptor const& socket) {
    if (!entry.valid())
        return -1;
    sockaddr_un const address = addressOf(pathOf(entry));
    if (::connect(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0)
        return 0;
    if (errno == ECONNREFUSED)
        errno = isSocket(entry) ? ECONNREFUSED : ENOTSOCK;
    return -1;
}

}  // namespace

/** 0, or -1 with errno. */
int EntryFolder::connectTo(std::string const& file, Descriptor const& socket) const {
    Descriptor const entry(withEnoughDescriptors([&] { return openEntry(file).release(); }));
    bool const exhausted = !entry.valid() && (errno == EMFILE || errno == ENFILE);
    return exhausted ? connectBySpare(file, socket) : connectThrough(entry, socket);
}

int EntryFolder::connectBySpare(std::string const& file, Descriptor const& socket) const {
    OSWrap::Lock<> lock(spareMutex_);
    spare_.reset();
    spare_ = openEntry(file);  // in reserve from then on, as good as any other
    int const result = connectThrough(spare_, socket);
    int const reason = errno;
    keepSpare();
    errno = reason;
    return result;
}

void EntryFolder::keepSpare() const {
    if (!spare_.valid())
        spare_ = Descriptor(::openat(folder_.get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
}

/** To who opens something next, where no other is left. */
void EntryFolder::lendSpare() const {
    if (descriptorsLeft(folder_.get(), 1))
        return;
    OSWrap::Lock<> lock(spareMutex_);
    spare_.reset();
}

OpenSocket EntryFolder::connect(std::string const& file) const {
    Descriptor socket = makeSocket();
    if (socket.valid() && connectTo(file, socket) == 0)
        return OpenSocket(socket.release());
    int const reason = errno;
    socket.reset();
    errno = reason;
    return OpenSocket();
}

pid_t EntryFolder::listenerOf(std::string const& file) const {
    auto const socket = connect(file);
    if (!socket.valid())
        return errno == ECONNREFUSED || errno == ENOENT || errno == EPROTOTYPE || errno == ENOTSOCK
                   ? kFree
                   : kUnknown;
    PeerIdentity identity{};
    bool const known = peerIdentity(socket.get(), identity) && identity.user == ::geteuid();
    return known && identity.process > 0 ? identity.process : kFree;
}

EntryFolder::Socket EntryFolder::probe(std::string const& file) const {
    if (connectTo(file, asking_) == 0)
        return Socket::Alive;
    // EPROTOTYPE: one of the entries' type is there. ENOTSOCK: what was there may come back.
    return errno == ECONNREFUSED ? Socket::Dead : errno == ENOENT ? Socket::Absent : Socket::Alive;
}

std::optional<EntryTimes> EntryFolder::timesOf(std::string const& file) const {
    constexpr unsigned int kWanted = STATX_BTIME | STATX_CTIME;
    struct statx status;
    if (::statx(folder_.get(), file.c_str(), AT_SYMLINK_NOFOLLOW, kWanted, &status) != 0 ||
        (status.stx_mask & kWanted) != kWanted)
        return std::nullopt;
    return EntryTimes{nanosecondsOf(status.stx_btime), nanosecondsOf(status.stx_ctime)};
}

std::optional<FileIdentity> EntryFolder::identityOf(std::string const& file) const {
    struct stat status;
    if (::fstatat(folder_.get(), file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return FileIdentity{status.st_dev, status.st_ino};
}

std::optional<Showing> EntryFolder::showingOf(std::string const& file) const {
    struct stat status;
    if (::fstatat(folder_.get(), file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return Showing{status.st_dev, status.st_ino,
                   status.st_ctim.tv_sec * 1'000'000'000LL + status.st_ctim.tv_nsec};
}

}  // namespace Transport
