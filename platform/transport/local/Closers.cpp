#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <new>

#include "oswrap/ConditionVar.h"
#include "oswrap/Immortal.h"
#include "oswrap/Lock.h"
#include "oswrap/Thread.h"
#include "platform/transport/DelayedLog.h"
#include "platform/transport/local/Descriptor.h"
#include "platform/transport/local/Fork.h"
#include "platform/transport/local/Packet.h"

namespace Transport {
namespace {

constexpr char const* kSource = "Descriptor";
constexpr std::size_t kMostWaiting = 2048;
/** A thread without work ends after so long, in nanoseconds. */
constexpr long long kIdle = 500'000'000;

/** So deep sockets may be in sockets to be emptied. */
constexpr int kDeepest = 8;

thread_local int depth = 0;  // of the socket that is being emptied

/** What has come in on a socket of ours, and whoever has connected to it, on their way out. */
void empty(int socket) {
    for (int fd = 0; fd >= 0;) {
        fd = ::accept4(socket, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        OpenSocket const closed(fd);
    }
    dropPackets(socket);
}

bool isUnixSocket(int fd) {
    int domain = 0;
    socklen_t length = sizeof domain;
    return ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain == AF_UNIX;
}

/** Most who make us wait do it by a connection that lingers, passed by itself or within a socket.
 */
void closePatiently(int fd) {
    if (isUnixSocket(fd) && depth < kDeepest) {
        ::shutdown(fd, SHUT_RDWR);  // nothing more can be put in
        ++depth;
        empty(fd);
        --depth;
    } else {
        struct linger const off{};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof off);
    }
    ::close(fd);
}

/**
 * A queue of descriptors and the threads that close them, because others could make a thread wait
 * for that. The threads are started when there is work that none is free for, and end when there is
 * none. However many of them are held up, what they are given stays bounded, since a receiving
 * thread that finds them behind takes nobody in. Never destroyed.
 */
class Closers {
public:
    /** `mostHeld`: with more waiting they are behind. */
    Closers(int mostThreads, std::size_t mostHeld)
        : mostThreads_(mostThreads), mostHeld_(mostHeld) {}

    /** Those of the calling thread, which closes; else null. */
    static Closers const* own() { return own_; }

    void take(int fd);
    bool behind();

private:
    class ClosingThread;

    bool push(int fd, bool& start);
    bool pop(int& fd, bool& start);
    bool needsThread() OSW_REQUIRES(change_);
    void startThread();
    void run();

    static thread_local Closers const* own_;

    int const mostThreads_;
    std::size_t const mostHeld_;
    OSWrap::ConditionVar change_;  // a leaf: signalled when something was put in
    // A ring, so that closing needs no memory.
    std::array<int, kMostWaiting> waiting_ OSW_GUARDED_BY(change_);
    std::size_t first_ OSW_GUARDED_BY(change_) = 0;
    std::size_t count_ OSW_GUARDED_BY(change_) = 0;
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

/** Whether one more thread is to be started; it counts from now on. */
bool Closers::needsThread() {
    bool const needed = count_ > static_cast<std::size_t>(idle_) && threads_ < mostThreads_;
    threads_ += needed ? 1 : 0;
    return needed;
}

bool Closers::push(int fd, bool& start) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    if (count_ == kMostWaiting)
        return false;
    waiting_[(first_ + count_++) % kMostWaiting] = fd;
    start = needsThread();
    change_.signal();
    return true;
}

void Closers::take(int fd) {
    bool start = false;
    if (!push(fd, start)) {
        // Better one descriptor too many than a thread that others wait for.
        static Logging::LineLimit limit;
        TRANSPORT_LOG_LIMITED(limit, 3, kSource, "descriptor %d stays open: closing others hangs",
                              fd);
        return;
    }
    if (start)
        startThread();
}

bool Closers::behind() {
    bool behind = false;
    bool start = false;
    {
        OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
        behind = count_ >= mostHeld_;
        start = (behind || threads_ == 0) && needsThread();
    }
    if (start)
        startThread();
    return behind;
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
bool Closers::pop(int& fd, bool& start) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    while (count_ == 0) {
        ++idle_;
        bool const woken = change_.wait(OSWrap::TimeSpec(0, kIdle));
        --idle_;
        if (woken || count_ != 0)
            continue;
        --threads_;
        return false;
    }
    fd = waiting_[first_];
    first_ = (first_ + 1) % kMostWaiting;
    --count_;
    start = needsThread();
    return true;
}

void Closers::run() {
    int fd = -1;
    bool start = false;
    while (pop(fd, start)) {
        if (start)
            startThread();
        closePatiently(fd);
    }
}

/** A quarter of the descriptors that this process may have, as long as the queue has room. */
std::size_t mostFilesHeld() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<std::size_t>(std::min<rlim_t>(limit.rlim_max / 4, kMostWaiting - 256));
}

struct AllClosers {
    /** Of what the kernel closes by itself: sockets, pipes, memory. */
    Closers prompt{8, 256};
    /** Of files, for whose closing a file system may have to ask somebody, who never answers. */
    Closers files{2, mostFilesHeld()};
};

AllClosers& allClosers() {
    static OSWrap::Immortal<AllClosers> all;
    return *all;
}

/** Whether it lies in a file system that can be mounted: those without have no path. Asks only the
 * kernel, which does not ask the file system. */
bool isFile(int fd) {
    if (::fcntl(fd, F_GET_SEALS) >= 0)
        return false;  // memory, whose name looks like a path
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    char first = '/';
    return ::readlink(path, &first, 1) != 1 || first == '/';
}

}  // namespace

void closePassed(int fd) {
    if (inForkedChild()) {
        ::close(fd);
        return;
    }
    Closers& closers = isFile(fd) ? allClosers().files : allClosers().prompt;
    if (Closers::own() == &closers)
        closePatiently(fd);
    else
        closers.take(fd);
}

void closeSocket(int fd) {
    if (inForkedChild()) {  // the parent has it still
        ::close(fd);
        return;
    }
    ::shutdown(fd, SHUT_RDWR);
    if (isEmpty(fd))
        ::close(fd);
    else
        closePassed(fd);
}

bool closersBehind() {
    bool const files = allClosers().files.behind();
    return allClosers().prompt.behind() || files;
}

}  // namespace Transport
