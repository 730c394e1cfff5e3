#include "platform/transport/local/ReceiverPool.h"

#include <sys/epoll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <list>
#include <set>
#include <utility>

#include "logging/Log.h"
#include "oswrap/AdaptiveWait.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/Thread.h"
#include "platform/transport/local/Bell.h"
#include "platform/transport/local/Receiver.h"

namespace Transport {
namespace {

constexpr char const* kSource = "ReceiverPool";
constexpr int kEventsAtOnce = 32;
/** So often, at least, a busy thread looks at those who are asleep. */
constexpr int kTurnsBetweenEvents = 8;
/** Who has had nothing to do so often while others had goes to sleep. */
constexpr int kIdleTurns = 64;

}  // namespace

/**
 * One of the threads. Whom it serves is awake while there may be something to do for him, and is
 * looked at again and again; or asleep: then his descriptor and the time when he is due are waited
 * for. Nothing that the thread does for itself needs memory.
 */
class ReceiverPool::Server {
public:
    Server()
        : thread_(*this, &Server::run, "Receivers", OSWrap::Priority(3),
                  OSWrap::SchedulingPolicy(0), 128 * 1024) {}
    ~Server() {
        ends_.store(true);
        ringBell(bell_.get());
        thread_.join();
    }

    /** 0, or the errno of what has failed. */
    int start() {
        epoll_ = Descriptor(::epoll_create1(EPOLL_CLOEXEC));
        bell_ = makeBell();
        bool const ready =
            epoll_.valid() && bell_.valid() && watch(bell_.get(), EPOLLIN | EPOLLET, nullptr);
        return ready ? thread_.startQuietly() : errno;
    }
    bool add(std::shared_ptr<Receiver> receiver);

private:
    struct Member;
    using Members = std::list<Member>;
    using Dues = std::set<std::pair<long long, Member*>>;
    struct Member {
        explicit Member(std::shared_ptr<Receiver> one) : receiver(std::move(one)) {}
        std::shared_ptr<Receiver> const receiver;
        Members::iterator at{};
        Dues::node_type due{};   // while it is not among those
        Dues::iterator dueAt{};  // while it is
        bool begun = false;
        bool awake = true;
        int idleTurns = 0;
    };

    bool watch(int fd, std::uint32_t events, Member* member) {
        epoll_event event{};
        event.events = events;
        event.data.ptr = member;
        return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
    }
    void run();
    void takeIn();
    bool serveAwake();
    void fallAsleep(Member& member);
    void sleep();
    void awaitEvents(int timeoutMilliseconds);
    void wake(Member& member);
    void end(Member& member);
    bool ready() const;

    Descriptor epoll_;
    Descriptor bell_;
    std::atomic<bool> called_{false};  // somebody arrives
    std::atomic<bool> ends_{false};
    OSWrap::Mutex mutex_;  // a leaf
    Members arriving_ OSW_GUARDED_BY(mutex_);

    // Its thread only.
    Members awake_, asleep_;
    Dues dues_;  // of those who are asleep
    OSWrap::AdaptiveWait waiting_;

    OSWrap::MethodThread<Server> thread_;
};

/** All memory is taken here, before the thread knows of it. */
bool ReceiverPool::Server::add(std::shared_ptr<Receiver> receiver) {
    Members one;
    Member& member = one.emplace_back(std::move(receiver));
    member.at = one.begin();
    Dues due;
    due.emplace(0, &member);
    member.due = due.extract(due.begin());
    OSWrap::Lock<> lock(mutex_);
    if (!watch(member.receiver->descriptor(), EPOLLIN, &member))
        return false;
    arriving_.splice(arriving_.end(), one);
    called_.store(true);
    ringBell(bell_.get());
    return true;
}

void ReceiverPool::Server::run() {
    int turns = 0;
    while (!ends_ || !awake_.empty() || !asleep_.empty()) {
        takeIn();
        if (serveAwake()) {
            if (++turns % kTurnsBetweenEvents == 0)
                awaitEvents(0);
        } else if (!waiting_.poll([this] { return ready(); })) {
            sleep();
        }
    }
}

bool ReceiverPool::Server::ready() const {
    return called_ || std::any_of(awake_.begin(), awake_.end(),
                                  [](Member const& each) { return each.receiver->ready(); });
}

void ReceiverPool::Server::takeIn() {
    if (!called_.exchange(false))
        return;
    Members fresh;
    {
        OSWrap::Lock<> lock(mutex_);
        fresh.swap(arriving_);
    }
    for (Member& member : fresh)
        member.begun = true;
    awake_.splice(awake_.end(), fresh);
}

/** Each of them once; whether any had something to do. */
bool ReceiverPool::Server::serveAwake() {
    bool served = false;
    for (auto next = awake_.begin(); next != awake_.end();) {
        Member& member = *next++;
        Receiver::Receiving const now(*member.receiver);
        if (member.receiver->stopping()) {
            end(member);
        } else if (member.receiver->work()) {
            served = true;
            member.idleTurns = 0;
        } else if (++member.idleTurns >= kIdleTurns) {
            fallAsleep(member);
        }
    }
    return served;
}

void ReceiverPool::Server::end(Member& member) {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, member.receiver->descriptor(), nullptr);
    member.receiver->end();
    awake_.erase(member.at);
}

/** Unless there is something to do after all. */
void ReceiverPool::Server::fallAsleep(Member& member) {
    if (!member.receiver->fallAsleep())
        return;
    member.awake = false;
    member.due.value().first = member.receiver->due();
    member.dueAt = dues_.insert(std::move(member.due)).position;
    asleep_.splice(asleep_.end(), awake_, member.at);
}

void ReceiverPool::Server::wake(Member& member) {
    if (!member.begun)
        return;  // it is about to be taken in
    if (!member.awake) {
        member.due = dues_.extract(member.dueAt);
        member.awake = true;
        awake_.splice(awake_.end(), asleep_, member.at);
    }
    member.idleTurns = 0;
    Receiver::Receiving const now(*member.receiver);
    member.receiver->wake();
}

void ReceiverPool::Server::sleep() {
    for (auto next = awake_.begin(); next != awake_.end();) {
        Member& member = *next++;
        Receiver::Receiving const now(*member.receiver);
        fallAsleep(member);
    }
    if (!awake_.empty())
        return;
    long long const start = OSWrap::Clock::nowNanoseconds();
    awaitEvents(dues_.empty() ? -1 : ReceiverTimers::timeout(dues_.begin()->first));
    waiting_.slept(OSWrap::Clock::nowNanoseconds() - start);
}

void ReceiverPool::Server::awaitEvents(int timeoutMilliseconds) {
    epoll_event events[kEventsAtOnce];
    int const count = ::epoll_wait(epoll_.get(), events, kEventsAtOnce, timeoutMilliseconds);
    for (int i = 0; i < count; ++i)
        if (events[i].data.ptr != nullptr)
            wake(*static_cast<Member*>(events[i].data.ptr));
    long long const now = OSWrap::Clock::nowNanoseconds();
    while (!dues_.empty() && dues_.begin()->first <= now)
        wake(*dues_.begin()->second);
}

// ---- The pool ----------------------------------------------------------------------------------

ReceiverPool::ReceiverPool(std::size_t most) : most_(std::max<std::size_t>(most, 1)) {}

ReceiverPool::~ReceiverPool() = default;

/** They take turns; null, with the errno of what has failed, when there is none. */
ReceiverPool::Server* ReceiverPool::nextServer() {
    OSWrap::Lock<> lock(mutex_);
    std::size_t const index = served_++ % most_;
    if (index < servers_.size())
        return servers_[index].get();
    auto server = std::make_unique<Server>();
    int const failure = server->start();
    if (failure == 0)
        servers_.push_back(std::move(server));
    if (!servers_.empty())
        return servers_[index % servers_.size()].get();
    server.reset();
    errno = failure;
    return nullptr;
}

bool ReceiverPool::serve(std::shared_ptr<Receiver> receiver) {
    TerminationId const id = receiver->id();
    Server* const server = nextServer();
    if (server != nullptr && server->add(std::move(receiver)))
        return true;
    REFLECTORB_LOG(3, kSource, "termination 0x%08X has no thread that receives: errno %d",
                   id.value(), errno);
    return false;
}

}  // namespace Transport
