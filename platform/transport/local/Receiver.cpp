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
#include "platform/transport/local/ReceiverPool.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Switchboard.h"

namespace Transport {
namespace {

constexpr char const* kSource = "Receiver";
constexpr int kMessagesPerTurn = 64;
/** So often, at least, a busy thread looks at its descriptors. */
constexpr int kTurnsBetweenEvents = 8;
constexpr long long kShortagePause = 10'000'000;  // nanoseconds
constexpr std::size_t kLargeMessage = 16 * 1024;

std::atomic<std::uint32_t> lastToken{0};

}  // namespace

thread_local Receiver const* Receiver::received_ = nullptr;

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
    : id_(id), owner_(&owner), passesOn_(owner.passesOn()), acceptor_(*this) {}

Receiver::~Receiver() = default;

std::uint32_t Receiver::newToken() {
    return ++lastToken;
}

void Receiver::idleLookInterval(long long nanoseconds) {
    ReceiverTimers::idleLookInterval(nanoseconds);
}

// ---- Start and stop ----------------------------------------------------------------------------

bool Receiver::prepare() {
    if (events_.open()) {
        if (owner_->hasWorkers())
            workers_.open();  // else the receiving thread does all
        return true;
    }
    REFLECTORB_LOG(3, kSource, "termination 0x%08X cannot wait for messages: errno %d", id_.value(),
                   errno);
    return false;
}

bool Receiver::start(OpenSocket listening) {
    return startWith(std::move(listening), [this] {
        auto thread = std::make_unique<ReceivingThread>(shared_from_this());
        if (!thread->start())
            return false;
        (void)thread.release();  // deletes itself
        return true;
    });
}

bool Receiver::start(OpenSocket listening, ReceiverPool& pool) {
    return startWith(std::move(listening), [&] { return pool.serve(shared_from_this()); });
}

bool Receiver::startWith(OpenSocket listening, std::function<bool()> const& startThread) {
    if (!acceptor_.listen(std::move(listening)))
        return false;
    setStarted(true);  // before the thread, which may end at once
    try {
        if (startThread())
            return true;
    } catch (...) {
        setStarted(false);
        throw;
    }
    setStarted(false);
    return false;
}

void Receiver::setStarted(bool now) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    started_ = now;
}

void Receiver::beginToStop() {
    stopping_.store(true);
    events_.wake();
}

void Receiver::stop() {
    beginToStop();
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
    return received_ == this;
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

/** The body of a thread of its own: looks at everything, as long as there is something to do; polls
 * for a while; sleeps. Ends after `stop`. */
void Receiver::run() {
    Receiving const always(*this);
    while (!stopping())
        if (!work() && (leaveRings() || !waiting_.poll([this] { return ready(); })))
            sleep();
    end();
}

void Receiver::end() {
    takeRingsBack();
    OSWrap::untilMemory([this] { finish(); });
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    finished_ = true;
    change_.broadcast();
}

bool Receiver::work() {
    bool served = true;
    if (OSWrap::withMemory([&] { turn(served); }))
        return served;
    OSWrap::awaitMemory();
    events_.needAttention();
    return true;
}

void Receiver::turn(bool& served) {
    bool const asked = serveRequests();
    bool const local = serveInbox();
    bool const remote = serveChannels();
    served = asked || local || remote;
    if (!served)
        endBatch();
    else if (++turns_ % kTurnsBetweenEvents == 0)
        serveEvents(0);
}

void Receiver::endBatch() {
    if (hasServed_.load(std::memory_order_relaxed) &&
        hasServed_.exchange(false, std::memory_order_relaxed) && !stopping())
        owner_->batchEnded();
}

/** To poll would keep those away who wait for their answers, or for work, and can read by
 * themselves. True when nothing is left to poll for. */
bool Receiver::leaveRings() {
    auto const goes = [](std::shared_ptr<Channel> const& channel) {
        if (!channel->leavesRing())
            return false;
        channel->fallAsleep();
        if (channel->hasData()) {
            channel->wakeUp();
            return false;
        }
        channel->leaveRing();
        return true;
    };
    auto const end = std::remove_if(hot_.begin(), hot_.end(), goes);
    bool const left = end != hot_.end();
    hot_.erase(end, hot_.end());
    return (std::exchange(hasLeft_, false) || left) && hot_.empty();
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
bool Receiver::fallAsleep() {
    for (auto const& channel : hot_)
        channel->fallAsleep();
    events_.fallAsleep();
    if (ready()) {
        events_.stayAwake();
        for (auto const& channel : hot_)
            channel->wakeUp();
        return false;
    }
    for (auto const& channel : hot_)
        channel->leaveRing();
    hot_.clear();
    return true;
}

void Receiver::sleep() {
    if (!fallAsleep())
        return;
    long long const start = OSWrap::Clock::nowNanoseconds();
    awaitEvents(ReceiverTimers::timeout(due()));
    waiting_.slept(OSWrap::Clock::nowNanoseconds() - start);
}

void Receiver::awaitEvents(int timeoutMilliseconds) {
    if (OSWrap::withMemory([&] { serveEvents(timeoutMilliseconds); }))
        return;
    OSWrap::awaitMemory();
    events_.needAttention();
}

void Receiver::request(Channel& channel) {
    if (channel.markRequested() && inbox_.request(channel))
        events_.wake();
}

void Receiver::requestReading(Channel& channel) {
    request(channel);
    if (!stopping())
        return;
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    change_.broadcast();
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
            deliverLocally(message);
    }
    return inboxFilled_;
}

void Receiver::serveReturned(AddressedMessage message) {
    sendsAgain_ = false;
    {
        OSWrap::Lock<> const lock(callback_);
        hasServed_.store(true, std::memory_order_relaxed);
        owner_->cameBack(message, MessageChain::isMarked(message, MessageMark::ReachedRing)
                                      ? Reached::Ring
                                      : Reached::Queue);
    }
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

/** What comes while answers are awaited may be one of those, and tells nothing. Without workers it
 * is of no account: the receiving thread would leave rings to nobody. Large messages, one after
 * the other, are its own: measured to be faster where there are two processors. */
void Receiver::noteArrival(Channel& channel, AddressedMessage const& message) {
    if (!workers_.valid() || channel.isAwaited())
        return;
    bool const wasLarge = std::exchange(lastWasLarge_, message.size() >= kLargeMessage);
    bool const inTurn =
        last_ != nullptr && last_->sent() != lastSent_ && !(wasLarge && lastWasLarge_);
    if (last_.get() != &channel) {
        last_ = channel.shared_from_this();
        lastFrom_.store(channel.token(), std::memory_order_relaxed);
    }
    lastSent_ = channel.sent();
    pace_.note(inTurn);
}

void Receiver::forgetLast() {
    std::shared_ptr<Channel> forgotten;  // freed after unlocking
    OSWrap::Lock<> const lock(callback_);
    forgotten = std::move(last_);
}

void Receiver::deliverLocally(AddressedMessage const& message) {
    OSWrap::Lock<> const lock(callback_);
    hasServed_.store(true, std::memory_order_relaxed);
    owner_->received(message);
}

void Receiver::deliver(Channel& channel, AddressedMessage const& message) {
    OSWrap::Lock<> const lock(callback_);
    noteArrival(channel, message);
    hasServed_.store(true, std::memory_order_relaxed);
    owner_->received(message);
}

/** Who is woken by the message finds the ring free, and reads what follows by itself. It comes
 * behind this message, since whoever reads it waits for the mutex. */
bool Receiver::deliverFrom(Channel& channel, AddressedMessage const& message) {
    OSWrap::Lock<> const lock(callback_);
    if (takesNoMore())
        return false;
    channel.keepMessage();
    noteArrival(channel, message);
    if (channel.leaveEmptyRing()) {
        makeCold(channel);
        hasLeft_ = true;
    }
    hasServed_.store(true, std::memory_order_relaxed);
    passesOn_ ? owner_->receivedOver(channel.token(), message) : owner_->received(message);
    return true;
}

void Receiver::takeNoMore() {
    OSWrap::Lock<> const lock(callback_);
    takesNoMore_.store(true, std::memory_order_relaxed);
}

void Receiver::takeBack(AddressedMessage& message) {
    noteSentAgain(message);
    OSWrap::Lock<> const lock(callback_);
    hasServed_.store(true, std::memory_order_relaxed);
    owner_->cameBack(message, Reached::Ring);
}

std::optional<std::uint32_t> Receiver::connectionEnded(Channel const& channel, bool takenBack) {
    OSWrap::Lock<> const lock(callback_);
    if (stopping() || takesNoMore())
        return std::nullopt;
    return owner_->connectionEnded(channel.peer(), channel.token(), takenBack);
}

void Receiver::leftQueue(TerminationId peer, std::uint64_t place) {
    if (serveAllReturned())
        owner_->leftQueue(peer, place);
}

/** What has come back so far; false when it begins to stop. Then the owner may be called. */
bool Receiver::serveAllReturned() {
    while (!stopping()) {
        AddressedMessage message = inbox_.takeReturned();
        if (message.empty()) {
            hasServed_.store(true, std::memory_order_relaxed);
            return true;
        }
        if (!OSWrap::withMemory([&] { serveReturned(std::move(message)); }))
            OSWrap::awaitMemory();
    }
    return false;
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

void Receiver::serveTimers(Channel& channel, long long now, ReceiverTimers::IdleLook look) {
    if (look != ReceiverTimers::IdleLook::None && channel.connected()) {
        channel.giveBackIfIdle(look == ReceiverTimers::IdleLook::ForDescriptors);
        timers_.beginIdleLooks();
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
    if (passesOn_)
        owner_->channelBegan(channel.peer(), channel.token());
}

void Receiver::dismiss(Channel& channel) {
    makeCold(channel);
    if (!passesOn_ || serveAllReturned())
        forget(channel);
}

/** The owner of a proxy lives until `stop` has returned. */
void Receiver::forget(Channel& channel) {
    if (channels_.erase(channel.token()) != 0 && passesOn_)
        owner_->channelCleared(channel.peer(), channel.token());
}

void Receiver::makeHot(Channel& channel) {
    if (!channel.claimRing())
        return;
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

/** Those who read by themselves see that we stop, between two messages, and hand their rings over;
 * from then on they take none. So this waits for callbacks, as `stop` does. */
void Receiver::takeRingsBack() {
    for (auto const& [token, channel] : channels_)
        channel->takeRingBack();
    auto const isOurs = [](auto const& entry) { return entry.second->hasRing(); };
    OSWrap::Lock<OSWrap::ConditionVar> lock(change_);
    while (!std::all_of(channels_.begin(), channels_.end(), isOurs))
        change_.wait(OSWrap::TimeSpec::INFINITETIME);
}

/** In phases: (1) nobody reaches us any more, (2) close the channels, (3) what nobody will read
 * goes back. */
void Receiver::finish() {
    std::size_t lost = 0;
    hot_.clear();
    forgetLast();
    for (auto const& channel : Switchboard::instance().remove(id_)) {
        lost += channel->shutDown();
        forget(*channel);
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
    while (!channels_.empty()) {
        std::shared_ptr<Channel> const channel = channels_.begin()->second;
        channel->shutDown();
        forget(*channel);
    }
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
