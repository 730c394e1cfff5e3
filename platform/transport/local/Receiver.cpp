#include "platform/transport/local/Receiver.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "logging/LineLimit.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/Thread.h"
#include "platform/transport/local/Bell.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Switchboard.h"
#include "transport/TerminationImpl.h"

namespace Transport {
namespace {

constexpr char const* kSource = "Receiver";
constexpr int kMessagesPerTurn = 64;
/** So often, at least, a busy thread looks at its descriptors. */
constexpr int kTurnsBetweenEvents = 8;
constexpr int kEventsAtOnce = 32;
constexpr long long kShortagePause = 10'000'000;  // nanoseconds
constexpr long long kNever = LLONG_MAX;

std::atomic<std::uint32_t> lastToken{0};
/** Channels without traffic in two of these are given back. */
std::atomic<long long> idleLookIntervalNow{30'000'000'000};

std::uint64_t eventData(std::uint32_t token, Receiver::Source source) {
    return static_cast<std::uint64_t>(token) << 2 | static_cast<std::uint32_t>(source);
}

}  // namespace

/** Ends when the receiver is told to stop; deletes itself. */
class Receiver::ReceivingThread : public OSWrap::Thread {
public:
    explicit ReceivingThread(std::shared_ptr<Receiver> receiver)
        : Thread("Receiver", OSWrap::Priority(3), OSWrap::SchedulingPolicy(0), 128 * 1024, true),
          receiver_(std::move(receiver)) {
        deleteOnThreadTermination();
    }

protected:
    int run() override {
        receiver_->run();
        return 0;
    }

private:
    std::shared_ptr<Receiver> const receiver_;
};

Receiver::Receiver(TerminationId id, TerminationImpl& owner)
    : id_(id), owner_(&owner), acceptor_(*this), nextTimer_(kNever), nextIdleLook_(kNever) {}

Receiver::~Receiver() = default;

std::uint32_t Receiver::newToken() {
    return ++lastToken;
}

void Receiver::idleLookInterval(long long nanoseconds) {
    idleLookIntervalNow.store(nanoseconds);
}

// ---- Start and stop ----------------------------------------------------------------------------

bool Receiver::prepare() {
    auto make = [this] {
        epoll_ = Descriptor(::epoll_create1(EPOLL_CLOEXEC));
        wakeBell_ = makeBell();
        return epoll_.valid() && wakeBell_.valid();
    };
    bool const made = make() || (errno == EMFILE && raiseDescriptorLimit() && make());
    if (made && watch(wakeBell_.get(), 0, Source::WakeUp))
        return true;
    REFLECTORB_LOG(3, kSource, "termination 0x%08X cannot wait for messages: errno %d", id_.value(),
                   errno);
    return false;
}

bool Receiver::start(OpenSocket listening) {
    if (!acceptor_.listen(std::move(listening)))
        return false;
    auto* thread = new ReceivingThread(shared_from_this());
    {
        OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
        started_ = true;
    }
    if (thread->start())
        return true;
    delete thread;
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    started_ = false;
    return false;
}

void Receiver::stop() {
    stopping_.store(true);
    wake();
    if (onReceivingThread())
        return;
    {
        OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
        while (started_ && !finished_)
            change_.wait(OSWrap::TimeSpec::INFINITETIME);
        if (finished_)
            return;
        finished_ = true;
    }
    finish();  // there never was a thread
}

bool Receiver::onReceivingThread() const {
    return threadId_.load() == OSWrap::Thread::getCurrentId();
}

void Receiver::waitUntilSent(long long idle, long long most) {
    if (onReceivingThread())
        return;
    long long now = OSWrap::Clock::nowNanoseconds();
    long long const end = now + most;
    long long patience = now + idle;
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    for (std::size_t before = unsent_.load(); started_ && !finished_ && before != 0;) {
        long long const left = std::min(patience, end) - now;
        if (left <= 0)
            return;
        change_.wait(OSWrap::TimeSpec(0, left));
        now = OSWrap::Clock::nowNanoseconds();
        std::size_t const unsent = unsent_.load();
        if (unsent < before)
            patience = now + idle;
        before = unsent;
    }
}

void Receiver::unsentLess(std::size_t count) {
    if (count == 0 || unsent_.fetch_sub(count) != count || sending())
        return;
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    change_.broadcast();
}

// ---- The thread --------------------------------------------------------------------------------

/** The thread's body: looks at everything, as long as there is something to do; polls for a while;
 * sleeps. Ends after `stop`. */
void Receiver::run() {
    threadId_.store(OSWrap::Thread::getCurrentId());
    int turns = 0;
    while (!stopping()) {
        if (OSWrap::withMemory([&] { turn(turns); }))
            continue;
        OSWrap::awaitMemory();
        attention_.store(true);
    }
    OSWrap::untilMemory([this] { finish(); });
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    finished_ = true;
    change_.broadcast();
}

void Receiver::turn(int& turns) {
    bool const asked = serveRequests();
    bool const local = serveInbox();
    bool const remote = serveChannels();
    if (asked || local || remote) {
        if (++turns % kTurnsBetweenEvents == 0)
            serveEvents(0);
    } else if (!waiting_.poll([this] { return ready(); })) {
        sleep();
    }
}

bool Receiver::ready() const {
    if (attention_.load())
        return true;
    for (auto const& channel : hot_)
        if (channel->hasData())
            return true;
    return false;
}

/** From here on each hot channel's peer, and everyone in this process, must ring; so look once more
 * at what they may have done just before. */
void Receiver::sleep() {
    for (auto const& channel : hot_)
        channel->fallAsleep();
    asleep_.store(true);
    if (ready()) {
        asleep_.store(false);
        for (auto const& channel : hot_)
            channel->wakeUp();
        return;
    }
    hot_.clear();
    long long const start = OSWrap::Clock::nowNanoseconds();
    serveEvents(timeout());
    waiting_.slept(OSWrap::Clock::nowNanoseconds() - start);
}

void Receiver::wake() {
    attention_.store(true);
    if (asleep_.load() && asleep_.exchange(false))
        ringBell(wakeBell_.get());
}

void Receiver::request(Channel& channel) {
    if (!channel.markRequested())
        return;
    {
        OSWrap::Lock<> lock(inboxMutex_);
        if (closed_)
            return;
        std::shared_ptr<Channel>& end =
            lastRequest_ != nullptr ? lastRequest_->nextRequested() : firstRequest_;
        end = channel.shared_from_this();
        lastRequest_ = &channel;
    }
    wake();
}

/** What others have asked for. Clears the sign that they set, so it comes first in each turn. */
bool Receiver::serveRequests() {
    if (!attention_.load())
        return false;
    attention_.store(false);
    inboxFilled_ = true;
    std::shared_ptr<Channel> next = takeRequests();
    bool const served = next != nullptr;
    while (next != nullptr) {
        std::shared_ptr<Channel> const channel = std::move(next);
        next = std::move(channel->nextRequested());
        if (OSWrap::withMemory([&] { channel->service(); }))
            continue;
        OSWrap::awaitMemory();
        request(*channel);
    }
    return served;
}

/** The first of the requests, with the others behind it. */
std::shared_ptr<Channel> Receiver::takeRequests() {
    OSWrap::Lock<> lock(inboxMutex_);
    lastRequest_ = nullptr;
    return std::move(firstRequest_);
}

/** A bounded number of messages of this process, those that come back first. */
bool Receiver::serveInbox() {
    for (int count = 0; count < kMessagesPerTurn && inboxFilled_ && !stopping(); ++count) {
        AddressedMessage message;
        bool comesBack = false;
        {
            OSWrap::Lock<> lock(inboxMutex_);
            comesBack = !errors_.empty();
            message = comesBack ? errors_.pop() : inbox_.pop();
        }
        if (message.empty()) {
            inboxFilled_ = false;
            return count > 0;
        }
        if (comesBack)
            serveReturned(std::move(message));
        else
            owner_->receive(message);
    }
    return inboxFilled_;
}

void Receiver::serveReturned(AddressedMessage message) {
    sendsAgain_ = false;
    owner_->receiveError(message);
    if (!sendsAgain_)
        return;
    if (!message.extend(message.size()))
        message = copyOf(message);  // somebody has kept it
    std::shared_ptr<Channel> channel;
    auto const find = [&] {
        channel = Switchboard::instance().channel(shared_from_this(), message.destination());
    };
    if (!OSWrap::withMemory(find)) {
        OSWrap::awaitMemory();
        giveBack(std::move(message));  // to ask anew
    } else if (message.empty() || channel == nullptr || !channel->sendAgain(std::move(message))) {
        static Logging::LineLimit limit;
        REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                               "termination 0x%08X could not send an answer again: lost",
                               id_.value());
    }
}

bool Receiver::sendAgain(AddressedMessage const& message) {
    if (!onReceivingThread() || wasSentAgain(message) ||
        !Rendezvous::instance().exists(message.destination()))
        return false;
    sendsAgain_ = true;
    return true;
}

/** A bounded number of messages of each hot channel. A callback may change the list only through
 * this thread's own work on its channels, which is why it is read anew each time. */
bool Receiver::serveChannels() {
    bool served = false;
    for (std::size_t i = 0; i < hot_.size() && !stopping(); ++i) {
        std::shared_ptr<Channel> const channel = hot_[i];
        served |= channel->receiveBatch();
    }
    return served;
}

void Receiver::deliver(AddressedMessage const& message) {
    owner_->receive(message);
}

// ---- Messages within the process ---------------------------------------------------------------

int Receiver::deliverCopy(AddressedMessage const& message, Room room) {
    AddressedMessage copy = copyOf(message);
    if (copy.empty())
        return 0;
    {
        OSWrap::Lock<> lock(inboxMutex_);
        if (refusing_ || !inbox_.hasRoomFor(message.size(), room))
            return 0;
        inbox_.push(std::move(copy));
    }
    wake();
    return 1;
}

void Receiver::refuseReceiving() {
    OSWrap::Lock<> lock(inboxMutex_);
    refusing_ = true;
}

int Receiver::giveBack(AddressedMessage message) {
    {
        OSWrap::Lock<> lock(inboxMutex_);
        if (closed_ || !errors_.hasRoomFor(message.size(), Room::Usual))
            return 0;
        errors_.push(std::move(message));
    }
    wake();
    return 1;
}

void Receiver::giveBack(MessageQueue& messages) {
    if (messages.empty())
        return;
    {
        OSWrap::Lock<> lock(inboxMutex_);
        if (closed_)
            return;
        errors_.append(messages);
    }
    wake();
}

// ---- Descriptors and timers --------------------------------------------------------------------

bool Receiver::watch(int fd, std::uint32_t token, Source source) {
    epoll_event event{};
    // Bells are not looked at: each ring is an event of its own.
    event.events = source == Source::Bell     ? EPOLLIN | EPOLLOUT | EPOLLET
                   : source == Source::WakeUp ? EPOLLIN | EPOLLET
                                              : EPOLLIN;
    event.data.u64 = eventData(token, source);
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0)
        return true;
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                           "termination 0x%08X cannot watch a descriptor: errno %d", id_.value(),
                           errno);
    return false;
}

void Receiver::unwatch(int fd) {
    if (fd >= 0)
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void Receiver::serveEvents(int timeoutMilliseconds) {
    epoll_event events[kEventsAtOnce];
    int const count = ::epoll_wait(epoll_.get(), events, kEventsAtOnce, timeoutMilliseconds);
    asleep_.store(false);
    // A bell is told of only once, so a shortage at one event must not cost the others.
    for (int i = 0; i < count && !stopping(); ++i)
        if (!OSWrap::withMemory([&] { serveEvent(events[i].data.u64); }))
            OSWrap::awaitMemory();
    if (nextTimer_ != kNever || nextIdleLook_ != kNever)
        serveTimers();
}

void Receiver::serveEvent(std::uint64_t data) {
    auto const source = static_cast<Source>(data & 3);
    auto const token = static_cast<std::uint32_t>(data >> 2);
    if (source == Source::Listening) {
        acceptor_.accept();
        return;
    }
    if (acceptor_.knows(token)) {
        acceptor_.hear(token);
        return;
    }
    auto const found = channels_.find(token);
    if (found == channels_.end())
        return;
    std::shared_ptr<Channel> const channel = found->second;
    bool const done = OSWrap::withMemory([&] {
        if (source == Source::Bell)
            channel->onBell();
        else
            channel->onSocket();
    });
    if (!done)
        channel->closeForShortage();
}

void Receiver::wakeAt(long long time) {
    nextTimer_ = std::min(nextTimer_, time);
}

/** Milliseconds until something is due; -1: nothing ever is. */
int Receiver::timeout() const {
    long long const due = std::min(nextTimer_, nextIdleLook_);
    if (due == kNever)
        return -1;
    long long const left = due - OSWrap::Clock::nowNanoseconds();
    return left <= 0 ? 0 : static_cast<int>(std::min(left / 1'000'000 + 1, 60'000LL));
}

void Receiver::serveTimers() {
    long long const now = OSWrap::Clock::nowNanoseconds();
    bool const idleLook = now >= nextIdleLook_;
    if (now < nextTimer_ && !idleLook)
        return;
    nextTimer_ = kNever;
    if (idleLook)
        nextIdleLook_ = kNever;
    // A shortage there must not cost the channels their times.
    if (!OSWrap::withMemory([&] { acceptor_.serveTimers(now); }))
        wakeAt(now + kShortagePause);
    for (auto const& [token, channel] : channels_)
        serving_.push_back(channel);
    // Serving one may enrol it, which makes room in the list.
    for (std::size_t i = 0; i < serving_.size(); ++i) {
        std::shared_ptr<Channel> const channel = serving_[i];
        if (OSWrap::withMemory([&] { serveTimers(*channel, now, idleLook); }))
            continue;
        OSWrap::awaitMemory();
        request(*channel);
    }
    serving_.clear();
}

void Receiver::serveTimers(Channel& channel, long long now, bool idleLook) {
    if (idleLook && channel.connected()) {
        channel.giveBackIfIdle();
        nextIdleLook_ = now + idleLookIntervalNow.load();
    }
    if (channel.retryAt() != 0 && channel.retryAt() <= now)
        channel.service();
    else if (channel.retryAt() != 0)
        wakeAt(channel.retryAt());
}

// ---- Channels ----------------------------------------------------------------------------------

/** With room for it wherever it may have to be entered later. */
void Receiver::enrol(Channel& channel) {
    if (channels_.count(channel.token()) != 0)
        return;
    hot_.reserve(channels_.size() + 1);
    serving_.reserve(channels_.size() + 1);
    channels_.emplace(channel.token(), channel.shared_from_this());
}

void Receiver::dismiss(Channel& channel) {
    makeCold(channel);
    channels_.erase(channel.token());
}

void Receiver::makeHot(Channel& channel) {
    channel.wakeUp();
    if (nextIdleLook_ == kNever)
        nextIdleLook_ = OSWrap::Clock::nowNanoseconds() + idleLookIntervalNow.load();
    for (auto const& hot : hot_)
        if (hot.get() == &channel)
            return;
    hot_.push_back(channel.shared_from_this());
}

void Receiver::makeCold(Channel& channel) {
    hot_.erase(std::remove_if(hot_.begin(), hot_.end(),
                              [&channel](auto const& hot) { return hot.get() == &channel; }),
               hot_.end());
}

// ---- The end -----------------------------------------------------------------------------------

/** In phases: (1) nobody reaches us any more, (2) close the channels, (3) what nobody will read
 * goes back. */
void Receiver::finish() {
    std::size_t lost = 0;
    hot_.clear();
    for (auto const& channel : Switchboard::instance().remove(id_)) {
        channels_.erase(channel->token());
        lost += channel->shutDown();
    }
    shutDownChannels();
    if (lost > 0)
        REFLECTORB_LOG(4, kSource, "termination 0x%08X stopped with %lu messages not sent",
                       id_.value(), static_cast<unsigned long>(lost));
    closeInbox();
    acceptor_.close();
}

/** Channels whose peers have gone, but which have not been cleared up yet. */
void Receiver::shutDownChannels() {
    std::unordered_map<std::uint32_t, std::shared_ptr<Channel>> channels;
    channels.swap(channels_);
    for (auto const& [token, channel] : channels)
        channel->shutDown();
}

void Receiver::closeInbox() {
    MessageQueue unread;
    MessageQueue cameBack;
    std::shared_ptr<Channel> requests;
    {
        OSWrap::Lock<> lock(inboxMutex_);
        refusing_ = closed_ = true;
        unread.swap(inbox_);
        cameBack.swap(errors_);
        requests.swap(firstRequest_);
        lastRequest_ = nullptr;
    }
    while (requests != nullptr)
        requests = std::shared_ptr<Channel>(std::move(requests->nextRequested()));
    while (!unread.empty()) {
        AddressedMessage const message = unread.pop();
        Switchboard::instance().giveBack(message, message.originator());
    }
}

}  // namespace Transport
