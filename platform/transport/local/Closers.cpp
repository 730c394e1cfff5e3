#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <new>
#include <optional>

#include "oswrap/ConditionVar.h"
#include "oswrap/Immortal.h"
#include "oswrap/Lock.h"
#include "oswrap/Thread.h"
#include "platform/transport/DelayedLog.h"
#include "platform/transport/local/Descriptor.h"
#include "platform/transport/local/Fork.h"
#include "platform/transport/local/Hurry.h"
#include "platform/transport/local/Packet.h"

namespace Transport {
namespace {

constexpr char const* kSource = "Descriptor";
constexpr std::size_t kMostWaiting = 4096;
/** For what comes between a look and the next. */
constexpr std::size_t kSpare = 256;
/** So many descriptors of a packet are taken in at least, if any. */
constexpr std::size_t kFewest = 2;
/** A thread without work ends after so long, in nanoseconds. */
constexpr long long kIdle = 500'000'000;

/** So deep sockets may be in sockets to be emptied. */
constexpr int kDeepest = 8;

thread_local int depth = 0;  // of the socket that is being emptied

/** What has come in on a socket of ours, and whoever has connected to it, on their way out. */
void empty(int socket, pid_t from) {
    for (int fd = 0; fd >= 0;) {
        fd = ::accept4(socket, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        OpenSocket const closed(fd);
    }
    dropPackets(socket, from);
}

bool isUnixSocket(int fd) {
    int domain = 0;
    socklen_t length = sizeof domain;
    return ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain == AF_UNIX;
}

/** What stays in a socket, because it is too deep or its sender has too much waiting, ends with it:
 * the kernel closes that. */
void closeUnixSocket(int fd, pid_t from) {
    ::shutdown(fd, SHUT_RDWR);  // nothing more can be put in
    if (depth < kDeepest) {
        ++depth;
        empty(fd, from);
        --depth;
    }
    std::optional<Hurry> hurry;
    if (!isEmpty(fd))
        hurry.emplace();
    ::close(fd);
}

/** Most who make us wait do it by a connection that lingers, passed by itself or within a socket.
 */
void closePatiently(int fd, pid_t from) {
    if (isUnixSocket(fd)) {
        closeUnixSocket(fd, from);
        return;
    }
    struct linger const off{};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof off);
    ::close(fd);
}

/** Whether a process that has nothing waiting yet may always be let in with something. */
enum class First { Always, WhileThereIsRoom };

/**
 * A queue of descriptors and the threads that close them, because others could make a thread wait
 * for that. The threads are started when there is work that none is free for, and end when there is
 * none. However many of them are held up, what they are given stays bounded, since a receiving
 * thread that finds them behind takes nobody in.
 *
 * What one process has passed holds up half of the threads at most, and it may have as much waiting
 * as is still free for all, by itself half of what may wait; what it has beyond that does not count
 * for others, until it is four times as much. Never destroyed.
 */
class Closers {
public:
    /** `mostHeld`: with more waiting they are behind. */
    Closers(int mostThreads, std::size_t mostHeld, First first)
        : mostThreads_(mostThreads), mostHeld_(mostHeld), firstLetIn_(first) {}

    /** Those of the calling thread, which closes; else null. */
    static Closers const* own() { return own_; }
    /** Who has passed what the calling thread closes, which closes something. */
    static pid_t closesFrom() { return closesFrom_; }

    void take(int fd, pid_t from);
    bool behind();
    bool behind(pid_t from);
    std::size_t expect(pid_t from, std::size_t most, std::size_t& account);
    void letGo(std::size_t account, std::size_t count);

private:
    class ClosingThread;
    /** What one process has here. */
    struct Account {
        std::size_t all() const { return held + expected; }
        bool isFree() const { return all() == 0; }

        pid_t process = 0;
        std::size_t held = 0;  // waits or is being closed
        std::size_t expected = 0;
        int closing = 0;  // threads that close something of it
    };
    struct Passed {
        int fd;
        pid_t from;
        std::size_t account;
    };
    /** The first account is that of all who find no other one. */
    static constexpr std::size_t kMostAccounts = 64;

    Passed& at(std::size_t index) OSW_REQUIRES(change_) {
        return waiting_[(first_ + index) % kMostWaiting];
    }
    std::size_t accountOf(pid_t from) const OSW_REQUIRES(change_);
    std::size_t openAccount(pid_t from) OSW_REQUIRES(change_);
    bool push(int fd, pid_t from, bool& start);
    bool pop(Passed& passed, bool& start);
    void finish(Passed const& passed);
    std::size_t firstReady() OSW_REQUIRES(change_);
    Passed remove(std::size_t index) OSW_REQUIRES(change_);
    std::size_t counted() const OSW_REQUIRES(change_);
    bool isFull() const OSW_REQUIRES(change_);
    bool needsThread() OSW_REQUIRES(change_);
    void startThread();
    void run();

    static thread_local Closers const* own_;
    static thread_local pid_t closesFrom_;

    int const mostThreads_;
    std::size_t const mostHeld_;
    First const firstLetIn_;
    OSWrap::ConditionVar change_;  // a leaf: signalled when something was put in
    // A ring, so that closing needs no memory.
    std::array<Passed, kMostWaiting> waiting_ OSW_GUARDED_BY(change_);
    std::size_t first_ OSW_GUARDED_BY(change_) = 0;
    std::size_t count_ OSW_GUARDED_BY(change_) = 0;
    std::array<Account, kMostAccounts> accounts_ OSW_GUARDED_BY(change_);
    int threads_ OSW_GUARDED_BY(change_) = 0;
    int idle_ OSW_GUARDED_BY(change_) = 0;  // of them
};

/** Deletes itself when there has been nothing to do for a while. */
class Closers::ClosingThread : public OSWrap::Thread {
public:
    explicit ClosingThread(Closers& closers)
        : Thread("TrCloser", OSWrap::Priority(3), OSWrap::SchedulingPolicy(0), 64 * 1024, true),
          closers_(closers) {
        deleteOnThreadTermination();
    }

protected:
    int run() override {
        own_ = &closers_;
        closers_.run();
        return 0;
    }

private:
    Closers& closers_;
};

thread_local Closers const* Closers::own_ = nullptr;
thread_local pid_t Closers::closesFrom_ = 0;

// ---- Accounts

/** The account that a process has, or that of all who have none. */
std::size_t Closers::accountOf(pid_t from) const {
    std::size_t account = kMostAccounts - 1;
    while (account != 0 && (accounts_[account].isFree() || accounts_[account].process != from))
        --account;
    return account;
}

std::size_t Closers::openAccount(pid_t from) {
    std::size_t account = accountOf(from);
    if (account != 0)
        return account;
    account = kMostAccounts - 1;
    while (account != 0 && !accounts_[account].isFree())
        --account;
    accounts_[account].process = from;
    return account;
}

/** What there is or is expected. One process counts for half of what may wait at most. */
std::size_t Closers::counted() const {
    std::size_t counted = 0;
    for (Account const& account : accounts_)
        counted += std::min(account.all(), mostHeld_ / 2);
    return counted;
}

/** More of one process keeps nobody else out, until it takes twice as much as all should have. */
bool Closers::isFull() const {
    return counted() >= mostHeld_ || count_ >= 2 * mostHeld_;
}

bool Closers::behind() {
    bool full = false;
    bool start = false;
    {
        OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
        full = isFull();
        start = needsThread();
    }
    if (start)
        startThread();
    return full;
}

bool Closers::behind(pid_t from) {
    bool behind = false;
    bool start = false;
    {
        OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
        std::size_t const own = accounts_[accountOf(from)].all();
        behind = own + counted() >= mostHeld_ && (own != 0 || firstLetIn_ != First::Always);
        start = needsThread();
    }
    if (start)
        startThread();
    return behind;
}

/** So many may come, `most` at most, which then are in `account`; 0 when the process has too much
 * here. Where few descriptors are to be had, few come at a time. */
std::size_t Closers::expect(pid_t from, std::size_t most, std::size_t& account) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    std::size_t const count = std::min(most, std::max(mostHeld_ / 4, kFewest));
    if (accounts_[accountOf(from)].all() + counted() + 2 * count > mostHeld_)
        return 0;
    account = openAccount(from);
    accounts_[account].expected += count;
    return count;
}

void Closers::letGo(std::size_t account, std::size_t count) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    accounts_[account].expected -= count;
}

// ---- The queue

/** The first that may be closed now; count_ when there is none. */
std::size_t Closers::firstReady() {
    std::size_t index = 0;
    while (index < count_ && accounts_[at(index).account].closing >= mostThreads_ / 2)
        ++index;
    return index;
}

/** The others keep their order. */
Closers::Passed Closers::remove(std::size_t index) {
    Passed const removed = at(index);
    for (; index > 0; --index)
        at(index) = at(index - 1);
    first_ = (first_ + 1) % kMostWaiting;
    --count_;
    return removed;
}

/** Whether one more thread is to be started; it counts from now on. */
bool Closers::needsThread() {
    bool const needed = threads_ < mostThreads_ && count_ > static_cast<std::size_t>(idle_) &&
                        firstReady() != count_;
    threads_ += needed ? 1 : 0;
    return needed;
}

bool Closers::push(int fd, pid_t from, bool& start) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    if (count_ == kMostWaiting)
        return false;
    std::size_t const account = openAccount(from);
    ++accounts_[account].held;
    at(count_++) = {fd, from, account};
    start = needsThread();
    change_.signal();
    return true;
}

void Closers::take(int fd, pid_t from) {
    bool start = false;
    if (!push(fd, from, start)) {
        // Better one descriptor too many than a thread that others wait for.
        static Logging::LineLimit limit;
        TRANSPORT_LOG_LIMITED(limit, 3, kSource, "descriptor %d stays open: closing others hangs",
                              fd);
        return;
    }
    if (start)
        startThread();
}

/** Without one, what waits is closed when the next one can be started: at the latest, those who ask
 * whether we are behind try. */
void Closers::startThread() {
    auto* const thread = new (std::nothrow) ClosingThread(*this);
    if (thread != nullptr && thread->startQuietly() == 0)
        return;
    delete thread;
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    --threads_;
}

/** Waits for work; false when there has been none for a while, and the thread is no longer counted.
 */
bool Closers::pop(Passed& passed, bool& start) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    while (firstReady() == count_) {
        ++idle_;
        bool const woken = change_.wait(OSWrap::TimeSpec(0, kIdle));
        --idle_;
        if (woken || firstReady() != count_)
            continue;
        --threads_;
        return false;
    }
    passed = remove(firstReady());
    ++accounts_[passed.account].closing;
    start = needsThread();
    if (idle_ != 0 && firstReady() != count_)
        change_.signal();  // what has waited for this thread, for one
    return true;
}

void Closers::finish(Passed const& passed) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    --accounts_[passed.account].closing;
    --accounts_[passed.account].held;
}

void Closers::run() {
    Passed passed{};
    bool start = false;
    while (pop(passed, start)) {
        if (start)
            startThread();
        closesFrom_ = passed.from;
        closePatiently(passed.fd, passed.from);
        finish(passed);
    }
}

/** An eighth of the descriptors that this process may have, as long as the queue has room for twice
 * as many. */
std::size_t mostHeld() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<std::size_t>(
        std::min<rlim_t>(limit.rlim_max / 8, (kMostWaiting - kSpare) / 2));
}

constexpr std::size_t kUsuallyHeld = 256;

struct AllClosers {
    /** Of what the kernel closes by itself: connections, pipes, memory. */
    Closers prompt{8, kUsuallyHeld, First::Always};
    /** Of sockets that others can send to, with what is in them: much, it may be, that takes its
     * time, or is out of reach where its sender has too much waiting. */
    Closers sockets{8, std::max(mostHeld(), kUsuallyHeld), First::Always};
    /** Of files, for whose closing a file system may have to ask somebody, who never answers. */
    Closers files{2, mostHeld(), First::WhileThereIsRoom};
};

AllClosers& allClosers() {
    static OSWrap::Immortal<AllClosers> all;
    return *all;
}

Closers& closersOf(int fd) {
    if (isPassedFile(fd))
        return allClosers().files;
    return isUnixSocket(fd) ? allClosers().sockets : allClosers().prompt;
}

}  // namespace

bool isPassedFile(int fd) {
    if (::fcntl(fd, F_GET_SEALS) >= 0)
        return false;  // memory, whose name looks like a path
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    char first = '/';
    return ::readlink(path, &first, 1) != 1 || first == '/';
}

void closePassed(int fd, pid_t from) {
    if (inForkedChild()) {
        ::close(fd);
        return;
    }
    Closers& closers = closersOf(fd);
    AllClosers const& all = allClosers();
    // Who empties a socket closes what was in it by himself: so he takes out no more than that.
    bool const inPlace = Closers::own() == &all.sockets && &closers == &all.prompt;
    if (inPlace || Closers::own() == &closers)
        closePatiently(fd, from);
    else
        closers.take(fd, from);
}

/** Who has connected to a socket of ours that listens is found out by his own one. */
void closeSocket(int fd) {
    if (inForkedChild()) {  // the parent has it still
        ::close(fd);
        return;
    }
    ::shutdown(fd, SHUT_RDWR);
    if (isEmpty(fd)) {
        ::close(fd);
        return;
    }
    bool const passed = Closers::own() != nullptr && Closers::closesFrom() != ::getpid();
    PeerIdentity peer{};
    peerIdentity(fd, peer);
    closePassed(fd, passed ? Closers::closesFrom() : peer.process);
}

/** Each is asked: that starts its threads, where one could not be started before. */
bool closersBehind() {
    AllClosers& all = allClosers();
    bool const sockets = all.sockets.behind();
    bool const files = all.files.behind();
    return all.prompt.behind() || sockets || files;
}

bool closersBehind(pid_t from) {
    AllClosers& all = allClosers();
    bool const sockets = all.sockets.behind(from);
    bool const files = all.files.behind(from);
    return all.prompt.behind(from) || sockets || files;
}

ExpectedFiles::ExpectedFiles(pid_t from, std::size_t most)
    : count_(allClosers().files.expect(from, most, account_)) {}

ExpectedFiles::~ExpectedFiles() {
    shrinkTo(0);
}

void ExpectedFiles::shrinkTo(std::size_t count) {
    if (count >= count_)
        return;
    allClosers().files.letGo(account_, count_ - count);
    count_ = count;
}

}  // namespace Transport
