#include "oswrap/Thread.h"

#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "platform/oswrap/CancellationPoint.h"
#include "platform/oswrap/QuickThreadLocal.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OSW_SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OSW_SANITIZED
#endif

namespace OSWrap {
namespace {

constexpr char const* kSource = "Thread";

#if defined(OSW_SANITIZED)
constexpr std::size_t kStackFactor = 8;
#else
constexpr std::size_t kStackFactor = sizeof(void*) == 8 ? 4 : 1;
#endif

/** The C library takes the room of thread-local variables out of the stack; ours are the buffer of
 * log records and small ones. */
constexpr std::size_t kThreadLocalRoom = 8192;

std::size_t realStackSize(std::size_t minimum) {
    auto const page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    auto const least = static_cast<std::size_t>(PTHREAD_STACK_MIN);
    std::size_t const size = std::max(minimum * kStackFactor, least) + kThreadLocalRoom;
    return (size + page - 1) / page * page;
}

/** All signals but those that a thread's own faults raise. */
sigset_t blockedSignals() {
    sigset_t set;
    sigfillset(&set);
    for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
        sigdelset(&set, fault);
    return set;
}

/** Blocks signals for a scope; a thread created in it inherits that. */
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t const blocked = blockedSignals();
        pthread_sigmask(SIG_SETMASK, &blocked, &former_);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
    BlockedSignals(BlockedSignals const&) = delete;
    BlockedSignals& operator=(BlockedSignals const&) = delete;

private:
    sigset_t former_;
};

// Without destructors, so that they hold their values until the thread has run its last line.
OSW_QUICK_THREAD_LOCAL unsigned long currentId = 0;
OSW_QUICK_THREAD_LOCAL long currentTid = 0;

std::atomic<unsigned long> lastId{0};

/** The thread that goes on in a forked child has another kernel id there. */
[[maybe_unused]] int const forgetsTidInForkedChild =
    pthread_atfork(nullptr, nullptr, [] { currentTid = 0; });

void nameCurrentThread(std::string const& name) {
    constexpr std::size_t kMostCharacters = 15;
    char shortened[kMostCharacters + 1] = {};
    name.copy(shortened, kMostCharacters);
    pthread_setname_np(pthread_self(), shortened);
}

}  // namespace

/** Lives on the bottom of the thread's stack: its end is the end of the thread, by return or by
 * cancellation. */
struct Thread::EndOfThread {
    Thread& thread;

    ~EndOfThread() {
        // Destructors, the object's and the thread-specific ones, must not be cancelled.
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        if (thread.deleteAtEnd_)
            delete &thread;
    }
};

Thread::Thread(char const* name, Priority priority, SchedulingPolicy policy, std::size_t stackSize,
               bool detached)
    : name_(name),
      priority_(priority),
      policy_(policy),
      stackSize_(stackSize),
      detached_(detached) {}

Thread::~Thread() {
    join();
}

bool Thread::start() {
    if (joinable_)
        return false;
    int const failure = startQuietly();
    if (failure != 0)
        REFLECTORB_LOG(3, kSource, "Thread %s could not be started: %s", name_.c_str(),
                       std::strerror(failure));
    return failure == 0;
}

int Thread::startQuietly() {
    if (joinable_)
        return EBUSY;
    // The object may be gone as soon as the thread runs.
    bool const joinable = joinableOnceStarted();
    pthread_t handle{};
    int const failure = create(handle);
    if (failure == 0 && joinable) {
        handle_ = handle;
        joinable_ = true;
    }
    return failure;
}

int Thread::create(pthread_t& handle) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, realStackSize(stackSize_));
    pthread_attr_setdetachstate(
        &attributes, joinableOnceStarted() ? PTHREAD_CREATE_JOINABLE : PTHREAD_CREATE_DETACHED);
    BlockedSignals const inheritedByTheNewThread;
    // A shortage may be over at once.
    constexpr int kAttempts = 5;
    int result = EAGAIN;
    for (int attempt = 0; attempt < kAttempts && result == EAGAIN; ++attempt)
        result = pthread_create(&handle, &attributes, &Thread::enter, this);
    pthread_attr_destroy(&attributes);
    return result;
}

void* Thread::enter(void* self) {
    EndOfThread const end{*static_cast<Thread*>(self)};
    nameCurrentThread(end.thread.name_);
    end.thread.applyScheduling();
    end.thread.run();
    return nullptr;
}

void Thread::join() {
    if (!joinable_)
        return;
    joinable_ = false;
    if (pthread_equal(handle_, pthread_self())) {
        pthread_detach(handle_);
        return;
    }
    DisableCancelStateGuard const noCancel;
    pthread_join(handle_, nullptr);
}

void Thread::applyScheduling() const {
    static std::atomic<bool> told{false};
    sched_param parameters{};
    bool const hasPriorities = sched_get_priority_max(policy_.value()) > 0;
    parameters.sched_priority = hasPriorities ? priority_.value() : 0;
    int const failure = pthread_setschedparam(pthread_self(), policy_.value(), &parameters);
    if (failure != 0 && !told.exchange(true, std::memory_order_relaxed))
        REFLECTORB_LOG(5, kSource, "Thread %s runs without policy %d, priority %d: %s",
                       name_.c_str(), policy_.value(), priority_.value(), std::strerror(failure));
}

unsigned long Thread::getCurrentId() {
    if (currentId == 0)
        currentId = lastId.fetch_add(1, std::memory_order_relaxed) + 1;
    return currentId;
}

long Thread::getCurrentTid() {
    if (currentTid == 0)
        currentTid = syscall(SYS_gettid);
    return currentTid;
}

void Thread::sleep(unsigned int seconds, unsigned long nanoseconds) {
    TimeSpec const length(seconds, static_cast<long long>(nanoseconds));
    timespec end = (Clock::getObsTime() + length).toTimespec();
    auto const sleepUntil = [](void* when) {
        return clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, static_cast<timespec*>(when),
                               nullptr);
    };
    while (atCancellationPoint(sleepUntil, &end) == EINTR)
        continue;
}

}  // namespace OSWrap
