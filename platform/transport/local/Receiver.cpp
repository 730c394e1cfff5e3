#include "platform/transport/local/Receiver.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "logging/LineLimit.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/Thread.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/ReceiverOwner.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Switchboard.h"

namespace Transport {
namespace {

constexpr char const* kSource = "Receiver";
constexpr int kMessagesPerTurn = 64;
/** So often, at least, a busy thread looks at its descriptors. */
constexpr int kTurnsBetweenEvents = 8;
constexpr long long kShortagePause = 10'000'000;  // nanoseconds

std::atomic<std::uint32_t> lastToken{0};

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

Receiver::Receiver(TerminationId id, ReceiverOwner& owner)
    : id_(id), owner_(&owner), tellsPlaces_(owner.tellsPlaces()), acceptor_(*this) {}

Receiver::~Receiver() = default;

std::uint32_t Receiver::newToken() {
    return ++lastToken;
}

void Receiver::idleLookInterval(long long nanoseconds) {
    ReceiverTimers::idleLookInterval(nanoseconds);
}

// ---- Start and stop ----------------------------------------------------------------------------

bool Receiver::prepare() {
    if (events_.open())
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
    events_.wake();
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
    OSWrap::untilMemory([this] { finish(); });  // there never was a thread
}

bool Receiver::onReceivingThread() const {
    return threadId_.load() == OSWrap::Thread::getCurrentId();
}

void Receiver::waitUntilSent(long long idle, long long most) {
    if (!onReceivingThread() && started())
        unsent_.wait(idle, most);
}

bool Receiver::started() {
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    return started_;
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
        events_.needAttention();
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
        return;
    }
    endBatch();
    if (!waiting_.poll([this] { return ready(); })) {
        sleep();
    }
}

void Receiver::endBatch() {
    if (std::exchange(hasServed_, false) && !stopping())
        owner_->batchEnded();
}

bool Receiver::ready() const {
    if (events_.attention())
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
    events_.fallAsleep();
    if (ready()) {
        events_.stayAwake();
        for (auto const& channel : hot_)
            channel->wakeUp();
        return;
    }
    hot_.clear();
    long long const start = OSWrap::Clock::nowNanoseconds();
    serveEvents(timers_.timeout());
    waiting_.slept(OSWrap::Clock::nowNanoseconds() - start);
}

void Receiver::request(Channel& channel) {
    if (channel.markRequested() && inbox_.request(channel))
        events_.wake();
}

/** What others have asked for. Clears the sign that they set, so it comes first in each turn. */
bool Receiver::serveRequests() {
    if (!events_.takeAttention())
        return false;
    inboxFilled_ = true;
    std::shared_ptr<Channel> next = inbox_.takeRequests();
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

/** A bounded number of messages of this process, those that come back first. */
bool Receiver::serveInbox() {
    for (int count = 0; count < kMessagesPerTurn && inboxFilled_ && !stopping(); ++count) {
        auto [message, comesBack] = inbox_.take();
        if (message.empty()) {
            inboxFilled_ = false;
            return count > 0;
        }
        if (comesBack)
            serveReturned(std::move(message));
        else
            deliver(message);
    }
    return inboxFilled_;
}

void Receiver::serveReturned(AddressedMessage message) {
    sendsAgain_ = false;
    hasServed_ = true;
    owner_->cameBack(message, MessageChain::isMarked(message, MessageMark::ReachedRing)
                                  ? Reached::Ring
                                  : Reached::Queue);
    if (!sendsAgain_)
        return;
    if (!message.extend(message.size()))
        message = copyOf(message);  // somebody has kept it
    std::shared_ptr<Channel> channel;
    auto const find = [&] {
        channel = Switchboard::instance().channel(shared_from_this(), message.destination());
    };
    bool sent = false;
    if (!message.empty() && !OSWrap::withMemory(find)) {
        OSWrap::awaitMemory();
        sent = giveBack(std::move(message)) == 1;  // to ask anew
    } else {
        sent = channel != nullptr && channel->sendAgain(std::move(message));
    }
    if (!sent) {
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
    hasServed_ = true;
    owner_->received(message);
}

void Receiver::takeBack(AddressedMessage& message) {
    noteSentAgain(message);
    hasServed_ = true;
    owner_->cameBack(message, Reached::Ring);
}

void Receiver::leftQueue(TerminationId peer, std::uint64_t place) {
    while (!stopping()) {
        AddressedMessage message = inbox_.takeReturned();
        if (message.empty()) {
            hasServed_ = true;
            owner_->leftQueue(peer, place);
            return;
        }
        if (!OSWrap::withMemory([&] { serveReturned(std::move(message)); }))
            OSWrap::awaitMemory();
    }
}

// ---- Messages within the process ---------------------------------------------------------------

int Receiver::deliverCopy(AddressedMessage const& message, Room room) {
    AddressedMessage copy = copyOf(message);
    if (copy.empty() || !inbox_.deliver(std::move(copy), room))
        return 0;
    events_.wake();
    return 1;
}

int Receiver::giveBack(AddressedMessage message) {
    if (!inbox_.giveBack(std::move(message)))
        return 0;
    events_.wake();
    return 1;
}

void Receiver::giveBack(MessageChain& messages) {
    if (!messages.empty() && inbox_.giveBack(messages))
        events_.wake();
}

// ---- Descriptors and timers --------------------------------------------------------------------

bool Receiver::watch(int fd, std::uint32_t token, Source source) {
    if (events_.watch(fd, token, source))
        return true;
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                           "termination 0x%08X cannot watch a descriptor: errno %d", id_.value(),
                           errno);
    return false;
}

void Receiver::serveEvents(int timeoutMilliseconds) {
    EventSet::Event events[EventSet::kMostAtOnce];
    int const count = events_.wait(timeoutMilliseconds, events);
    // A bell is reported only once, so a shortage at one event must not cost the others.
    for (int i = 0; i < count && !stopping(); ++i)
        if (!OSWrap::withMemory([&] { serveEvent(events[i].token, events[i].source); }))
            OSWrap::awaitMemory();
    if (timers_.running())
        serveTimers();
}

void Receiver::serveEvent(std::uint32_t token, Source source) {
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

void Receiver::serveTimers() {
    long long const now = OSWrap::Clock::nowNanoseconds();
    ReceiverTimers::Due const due = timers_.take(now);
    if (!due.something)
        return;
    // A shortage there must not cost the channels their times.
    if (!OSWrap::withMemory([&] { acceptor_.serveTimers(now); }))
        wakeAt(now + kShortagePause);
    for (auto const& [token, channel] : channels_)
        serving_.push_back(channel);
    // Serving one may enrol it, which makes room in the list.
    for (std::size_t i = 0; i < serving_.size(); ++i) {
        std::shared_ptr<Channel> const channel = serving_[i];
        if (OSWrap::withMemory([&] { serveTimers(*channel, now, due.idleLook); }))
            continue;
        OSWrap::awaitMemory();
        request(*channel);
    }
    serving_.clear();
}

void Receiver::serveTimers(Channel& channel, long long now, bool idleLook) {
    if (idleLook && channel.connected()) {
        channel.giveBackIfIdle();
        timers_.idleLookFrom(now);
    }
    if (channel.retryAt() != 0 && channel.retryAt() <= now)
        channel.service();
    else if (channel.retryAt() != 0)
        timers_.at(channel.retryAt());
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
    timers_.beginIdleLooks();
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
    unsent_.end();
}

/** Channels whose peers have gone, but which have not been cleared up yet. */
void Receiver::shutDownChannels() {
    std::unordered_map<std::uint32_t, std::shared_ptr<Channel>> channels;
    channels.swap(channels_);
    for (auto const& [token, channel] : channels)
        channel->shutDown();
}

void Receiver::closeInbox() {
    MessageChain unread;
    inbox_.close(unread);
    while (!unread.empty()) {
        AddressedMessage const message = unread.pop();
        Switchboard::instance().giveBack(message, message.originator());
    }
}

}  // namespace Transport
