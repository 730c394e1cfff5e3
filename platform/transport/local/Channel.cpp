#include "platform/transport/local/Channel.h"

#include <algorithm>
#include <utility>

#include "logging/LineLimit.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "platform/transport/local/Bell.h"
#include "platform/transport/local/Receiver.h"

// Messages into the ring and out of it. The connection under it is in ChannelConnection.cpp.

namespace Transport {
namespace {

constexpr int kMessagesPerBatch = 64;
constexpr std::uint32_t kBytesPerBatch = 64 * 1024;
/** So much more than is needed is reserved at a time, for the messages that follow. */
constexpr std::size_t kReservedAhead = 64 * 1024;

}  // namespace

Channel::Channel(std::shared_ptr<Receiver> receiver, TerminationId peer,
                 std::shared_ptr<PeerShare> share)
    : receiver_(std::move(receiver)),
      ownId_(receiver_->id()),
      peer_(peer),
      token_(Receiver::newToken()),
      share_(std::move(share)),
      unsent_(PeerShare::Kind::Unsent, share_),
      descriptors_(PeerShare::Kind::Channels, share_) {}

Channel::~Channel() = default;

Packet Channel::packet(Packet::Kind kind, std::uint32_t ringCapacity) const {
    return {kMagic,        kProtocolVersion, kind,        ownId_.value(),
            peer_.value(), kLayoutCheck,     ringCapacity};
}

// ---- Sending: any thread -----------------------------------------------------------------------

Channel::Sent Channel::send(AddressedMessage const& message, bool peerExists, Room room,
                            std::uint64_t* place) {
    OSWrap::Lock<> lock(mutex_);
    sent_.store(sent_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (state_ == State::Gone || !receiver_->sending())
        return Sent::Refused;
    if (state_ == State::Retired)
        return Sent::Retired;
    if (state_ == State::Idle && !peerExists)
        return Sent::AskPresence;
    if (state_ == State::Open) {
        if (!queue_.empty())
            drainLocked();
        if (queue_.empty() && putLocked(message)) {
            ringIfAsleepLocked();
            return Sent::Taken;
        }
    }
    return enqueueLocked(message, room, place);
}

bool Channel::putLocked(AddressedMessage const& message) {
    if (link_->writer->put(message.buf(), message.size()))
        return true;
    return growLocked(message.size(), boundFor(message.size())) &&
           link_->writer->put(message.buf(), message.size());
}

Channel::Sent Channel::enqueueLocked(AddressedMessage const& message, Room room,
                                     std::uint64_t* place) {
    if (!reserveLocked(message.size(), room))
        return Sent::Refused;
    AddressedMessage copy = copyOf(message);
    if (copy.empty()) {
        settleLocked();
        return Sent::Refused;
    }
    pushLocked(std::move(copy));
    if (place != nullptr && leftPlace_ != lastPlace_)
        *place = lastPlace_;
    return Sent::Taken;
}

/** What the peer has not taken, but for what is in the rings. */
std::size_t Channel::heldLocked() const {
    bool const stands = link_.has_value() && link_->writer.has_value();
    return queue_.bytes() + (stands ? link_->writer->keptBytes() : 0);
}

/** How large a ring may become for messages of this size. What goes to another machine stays in it
 * until it is there, so there is to be room for all that is on the way meanwhile. */
std::uint32_t Channel::boundFor(std::size_t messageSize) {
    return messageSize > kUsualRing / 8 || link_->toLink ? kLargestRing : kUsualRing;
}

/** Whether one more message may be queued: for this peer, and for its process. */
bool Channel::reserveLocked(std::size_t messageSize, Room room) {
    if (!queue_.hasRoomFor(messageSize, room))
        return false;
    std::size_t const needed = heldLocked() + MessageChain::weight(messageSize);
    if (needed <= unsent_.bytes())
        return true;
    std::size_t const missing = needed - unsent_.bytes();
    return unsent_.grow(missing + kReservedAhead, room) || unsent_.grow(missing, room);
}

/** Gives back what is reserved and not needed any more. */
void Channel::settleLocked() {
    std::size_t const held = heldLocked();
    if (held == 0)
        unsent_.shrinkTo(0);
    else if (unsent_.bytes() > held + 2 * kReservedAhead)
        unsent_.shrinkTo(held + kReservedAhead);
}

void Channel::pushLocked(AddressedMessage message) {
    message.originator(ownId_);
    message.destination(peer_);
    queue_.push(std::move(message));
    ++lastPlace_;
    receiver_->unsentMore();
    if (state_ == State::Open) {
        drainLocked();
    } else if (state_ == State::Idle) {
        state_ = State::Wanted;
        receiver_->request(*this);
    }
}

/** Whether a message may be queued beyond the usual limit. */
bool Channel::takesLocked(AddressedMessage const& message) {
    return state_ != State::Gone && state_ != State::Retired && receiver_->sending() &&
           reserveLocked(message.size(), Room::ForAnswers);
}

bool Channel::sendAgain(AddressedMessage message) {
    OSWrap::Lock<> lock(mutex_);
    if (!takesLocked(message))
        return false;
    noteSentAgain(message);
    pushLocked(std::move(message));
    return true;
}

Channel::Sent Channel::sendBack(AddressedMessage const& message) {
    AddressedMessage copy = copyOf(message);
    OSWrap::Lock<> lock(mutex_);
    if (state_ == State::Retired)
        return Sent::Retired;
    if (copy.empty() || !takesLocked(copy))
        return Sent::Refused;
    MessageChain::mark(copy, MessageMark::SentBack);
    receiver_->returningMore();
    pushLocked(std::move(copy));
    return Sent::Taken;
}

/** Sends on from the queue what fits. When the ring is full, the peer is asked to ring when it has
 * taken something, and the receiving thread goes on then. */
void Channel::drainLocked() {
    while (!queue_.empty()) {
        if (sendFrontLocked() || growForFrontLocked())
            continue;
        if (link_->writer->broken())
            receiver_->request(*this);
        if (std::exchange(link_->spaceAsked, true))
            break;
        link_->writer->wantSpace();
    }
    settleLocked();
    ringIfAsleepLocked();
}

/** Whether anything went into the ring. */
bool Channel::sendFrontLocked() {
    MessageBlock const& front = *queue_.front();
    bool const back = front.has(MessageMark::SentBack);
    std::uint32_t const mark = back ? kSentBack : 0;
    if (link_->frontDone == 0 && link_->writer->put(front.data(), front.size, mark)) {
        AddressedMessage sent = popFrontLocked();
        if (wasSentAgain(sent))
            link_->writer->keepUntilTaken(std::move(sent));
        return true;
    }
    if (link_->frontDone == 0 && !link_->writer->isLarge(front.size))
        return false;
    std::uint32_t const done =
        link_->writer->putPiece(front.data(), front.size, link_->frontDone, mark);
    link_->frontDone += done;
    if (link_->frontDone == front.size) {
        AddressedMessage sent = popFrontLocked();
        if (!back)
            link_->writer->keepUntilTaken(std::move(sent));
        link_->frontDone = 0;
    }
    return done != 0;
}

AddressedMessage Channel::popFrontLocked() {
    ++leftPlace_;
    if (receiver_->passesOn())
        receiver_->request(*this);
    receiver_->unsentLess(1);
    if (queue_.front()->has(MessageMark::SentBack))
        receiver_->returningLess(1);
    return queue_.pop();
}

/** Empties the queue of what the own termination has sent. What was sent back goes no further: it
 * was the peer's; answers how many of those there were. */
std::size_t Channel::takeOwnLocked(MessageChain& own) {
    std::size_t foreign = 0;
    leftPlace_ = lastPlace_;
    receiver_->unsentLess(queue_.count());
    while (!queue_.empty())
        if (AddressedMessage message = queue_.pop();
            MessageChain::isMarked(message, MessageMark::SentBack))
            ++foreign;
        else
            own.push(std::move(message));
    receiver_->returningLess(foreign);
    return foreign;
}

void Channel::tellPlaces() {
    if (!receiver_->passesOn())
        return;
    std::uint64_t left = 0;
    {
        OSWrap::Lock<> lock(mutex_);
        left = leftPlace_;
    }
    tellPlaces(left);
}

void Channel::tellPlaces(std::uint64_t left) {
    if (receiver_->passesOn() && left != std::exchange(toldPlace_, left))
        receiver_->leftQueue(peer_, left);
}

/** What comes back is to be out of this process soon, which may be about to take leave. */
bool Channel::growForFrontLocked() {
    MessageBlock const& front = *queue_.front();
    return growLocked(front.size,
                      front.has(MessageMark::SentBack) ? kLargestRing : boundFor(front.size));
}

/** Goes on in a larger ring, up to `bound`. */
bool Channel::growLocked(std::size_t messageSize, std::uint32_t bound) {
    std::uint32_t wanted = link_->writer->capacity();
    if (link_->growthFailed || wanted >= bound || link_->frontDone != 0 || link_->writer->broken())
        return false;
    do
        wanted *= 4;
    while (wanted < bound && wanted / 4 < messageSize);
    wanted = std::min(wanted, bound);
    std::size_t const had = link_->rings.bytes();
    bool const grown = link_->rings.grow(wanted) && goOnInRingOfLocked(wanted);
    link_->growthFailed = !grown;
    if (!grown)
        link_->rings.shrinkTo(had);
    return grown;
}

/** Makes a ring of so many bytes, tells the peer of it, and goes on there. */
bool Channel::goOnInRingOfLocked(std::uint32_t capacity) {
    Descriptor const file = makeSealedFile(capacity);
    if (!file.valid())
        return false;
    RingArea area;
    area.capacity = capacity;
    area.mapping = Mapping::of(file.get(), 0, capacity, Mapping::Access::ReadWrite);
    area.starts = FrameStarts(capacity);
    sealWriting(file.get());
    if (!area.mapping.valid() || !area.starts.valid() ||
        sendPacket(link_->socket.get(), packet(Packet::NextRing, capacity), file.get()) !=
            Transfer::Done)
        return false;
    link_->writer->goOnIn(std::move(area));
    return true;
}

void Channel::ringIfAsleepLocked() {
    if (link_->writer->mustRing())
        ringDoorBell(link_->peerBell);
}

void Channel::mayBeUnused() {
    {
        OSWrap::Lock<> lock(mutex_);
        if (state_ != State::Idle)
            return;
    }
    receiver_->request(*this);
}

void Channel::peerGone() {
    {
        OSWrap::Lock<> lock(mutex_);
        state_ = State::Gone;
    }
    receiver_->request(*this);
}

void Channel::goOn() {
    if (heldBack_.exchange(false))
        receiver_->request(*this);
}

/** The reader stands as long as the writer does, which needs the mutex to end. */
void Channel::release(std::uint32_t place) {
    OSWrap::Lock<> lock(mutex_);
    if (link_.has_value() && link_->writer.has_value() && reading_.reader().release(place))
        ringDoorBell(link_->peerBell);
}

// ---- The ring: who waits for an answer ---------------------------------------------------------

void Channel::joinWaiters() {
    bool const alone = waiters_.fetch_add(1, std::memory_order_relaxed) == 0;
    wasAwaited_.store(true, std::memory_order_relaxed);
    int const lonely = lonely_.load(std::memory_order_relaxed);
    if (!alone && lonely != 0)
        lonely_.store(0, std::memory_order_relaxed);
    else if (alone && lonely < kLonely)
        lonely_.store(lonely + 1, std::memory_order_relaxed);
}

bool Channel::beginReading() {
    if (!mayBeReadByCaller() || !reading_.tryTake())
        return false;
    if (reading_.canSleep())
        return true;
    endReading();
    return false;
}

void Channel::endReading() {
    if (isNeeded())
        handOver();
    else if (!reading_.giveBack())
        receiver_->requestReading(*this);
}

void Channel::handOver() {
    if (reading_.reader().finishBatch())
        ringDoorBell(reading_.peerBell());
    reading_.handOver();
    receiver_->requestReading(*this);
}

bool Channel::takeIn(AnswerWait::Awaited const& awaited) {
    std::uint32_t const start = reading_.reader().position();
    RingReader::Result result = RingReader::Result::Piece;
    for (int count = 0; count < kMessagesPerBatch && !awaited.hasCome(); ++count) {
        if (isNeeded() || reading_.reader().position() - start >= kBytesPerBatch)
            break;
        result = readOne(Reader::Other);
        if (result != RingReader::Result::Message && result != RingReader::Result::Piece)
            break;
    }
    finishBatch(start);
    bool const plain = result == RingReader::Result::Message ||
                       result == RingReader::Result::Piece || result == RingReader::Result::Nothing;
    if (awaited.hasCome() || (plain && !isNeeded()))
        return true;
    handOver();
    return false;
}

// ---- The ring: workers -------------------------------------------------------------------------

bool Channel::mayBeReadByWorker() const {
    return receiver_->oneAtATime() && !isAwaited();
}

bool Channel::heardByWorker() {
    if (goOnSending())
        receiver_->comesOutOfTurn();
    ReadingEnd::Heard const heard = reading_.heardByWorker();
    if (heard == ReadingEnd::Heard::ByReceiver)
        receiver_->request(*this);
    return heard == ReadingEnd::Heard::Taken;
}

/** One who waits for an answer by now may read by himself; for many the receiving thread polls. */
void Channel::endWork() {
    if (receiver_->oneAtATime() && (!isAwaited() || mayBeReadByCaller()))
        endReading();
    else
        handOver();
}

/** By the receiving thread, which is to go on with the ring. */
bool Channel::isNeeded() const {
    return reading_.wanted() || heldBack_.load() || receiver_->stopping() ||
           receiver_->takesNoMore();
}

// ---- The ring: receiving thread ----------------------------------------------------------------

void Channel::onBell() {
    if (!stands())
        return;
    if (reading_.heard())
        receiver_->makeHot(*this);
    floods_ = goOnSending();
    if (floods_)
        receiver_->comesOutOfTurn();
}

bool Channel::leavesRing() const {
    return mayBeReadByWorker() || (isReadByCallers() && (!floods_ || isAwaited()));
}

bool Channel::goOnSending() {
    OSWrap::Lock<> lock(mutex_);
    if (!link_.has_value())
        return false;
    link_->spaceAsked = false;
    link_->growthFailed = false;
    if (state_ == State::Open && !queue_.empty())
        drainLocked();
    return !queue_.empty();
}

bool Channel::receiveBatch() {
    if (!stands())
        return false;
    if (receiver_->takesNoMore() || (heldBack_.load() && !ending())) {
        receiver_->makeCold(*this);  // awake, and nobody else's, so that the peer need not ring
        if (receiver_->takesNoMore() && ending())
            react();  // which has waited for what is not taken any more
        return false;
    }
    Batch const batch = readBatch();
    if (batch == Batch::Waits)
        return false;
    if (batch == Batch::More)
        noteBatch();
    if (batch == Batch::Garbage)
        closeBecause("its ring holds nonsense");
    else if (batch == Batch::NoMemory)
        closeForShortage();
    else if (batch == Batch::NoRoom)
        closeBecause("too much of its process is unfinished");
    else if (ending() || connection_->byeSeen || connection_->garbageSeen)
        react();
    return batch != Batch::Empty;
}

Channel::Batch Channel::readBatch() {
    left_ = false;
    std::uint32_t const start = reading_.reader().position();
    for (int count = 0;
         count < kMessagesPerBatch && !receiver_->stopping() && !receiver_->takesNoMore() &&
         reading_.reader().position() - start < kBytesPerBatch;
         ++count) {
        if (reading_.awaitsRing && !switchRing()) {
            if (!connection_->starved)
                return Batch::Garbage;
            break;
        }
        if (count > 0 && heldBack_.load(std::memory_order_relaxed) && !ending())
            break;
        RingReader::Result const result = readOne(Reader::Receiver);
        if (std::exchange(left_, false))
            return Batch::Left;
        if (result == RingReader::Result::Garbage)
            return Batch::Garbage;
        if (result == RingReader::Result::NoMemory)
            return awaitMemory();
        if (result == RingReader::Result::NoRoom)
            return awaitRoom();
        reading_.shortages = 0;
        connection_->roomlessSince = 0;
        if (result == RingReader::Result::Nothing)
            break;
    }
    return finishBatch(start) ? Batch::More : Batch::Empty;
}

/** The receiving thread stops leaving the ring to callers when much comes while there is none. */
void Channel::noteBatch() {
    floods_ = false;
    if (waiters_.load(std::memory_order_relaxed) != 0)
        unawaited_ = 0;
    else if (isReadByCallers() && ++unawaited_ >= kMostUnawaited)
        lonely_.store(0, std::memory_order_relaxed);
}

/** Nothing, too, when the termination has begun to stop. */
RingReader::Result Channel::readOne(Reader reader) {
    AddressedMessage message;
    RingReader::Result const result = reading_.reader().next(message);
    if (result == RingReader::Result::NextRing)
        reading_.awaitsRing = true;
    if (result == RingReader::Result::Message && !take(message, reader))
        return RingReader::Result::Nothing;
    return result;
}

/** False when nothing has been read since `start`. */
bool Channel::finishBatch(std::uint32_t start) {
    if (reading_.reader().position() == start)
        return false;
    if (reading_.reader().finishBatch())
        ringDoorBell(reading_.peerBell());
    return true;
}

/** Hands a message to the termination; false when that has begun to stop, or takes no more, and the
 * message stays its sender's. */
bool Channel::take(AddressedMessage& message, Reader reader) {
    if (receiver_->stopping()) {
        reading_.reader().leave();
        return false;
    }
    if (reading_.reader().isSentBack()) {
        keepMessage();
        takeBack(message);
        return true;
    }
    message.originator(peer_);
    message.destination(ownId_);
    if (reader == Reader::Other) {
        keepMessage();
        receiver_->deliver(*this, message);
    } else if (!receiver_->deliverFrom(*this, message)) {
        reading_.reader().leave();
        return false;
    }
    return true;
}

/** Hands the termination one of its own, which the peer could not pass on. */
void Channel::takeBack(AddressedMessage& message) {
    message.originator(ownId_);
    message.destination(peer_);
    receiver_->takeBack(message);
}

/** The message stays in the ring for a second at most; then the channel is given up, and it goes
 * back to its sender with those behind it. */
Channel::Batch Channel::awaitMemory() {
    constexpr int kMostShortages = 100;
    if (++reading_.shortages > kMostShortages)
        return Batch::NoMemory;
    OSWrap::awaitMemory();
    return Batch::More;
}

/** A large message that begins here stays in the ring, with those behind it, while too many others
 * of the peer's process, or of all, are unfinished. Then the channel is given up, too: soon when
 * the peer has left, since what has not reached it comes back only then. */
Channel::Batch Channel::awaitRoom() {
    constexpr long long kPause = 100'000'000;  // nanoseconds
    long long const longest = (ending() ? 10 : 300) * kPause;
    long long const now = OSWrap::Clock::nowNanoseconds();
    if (connection_->roomlessSince == 0)
        connection_->roomlessSince = now;
    if (now - connection_->roomlessSince > longest)
        return Batch::NoRoom;
    if (reading_.reader().finishBatch())
        ringDoorBell(reading_.peerBell());
    receiver_->makeCold(*this);
    retryLater(kPause);
    return Batch::Waits;
}

/** The file of the next ring was sent before the ring told of it. */
bool Channel::switchRing() {
    if (connection_->nextRings.empty() && !connection_->starved)
        readPackets();
    if (connection_->nextRings.empty())
        return false;
    reading_.reader().goOnIn(std::move(connection_->nextRings.front()));
    connection_->nextRings.pop_front();
    reading_.awaitsRing = false;
    return true;
}

/** Before a close: whether everything that the peer has put in has been taken in. If not, the turns
 * that follow do that, a batch each. Bounded, for a peer that goes on writing after it has said its
 * last word. */
bool Channel::hasReadAll() {
    if (!stands())
        return true;
    if (!reading_.demand())
        return false;
    if (receiver_->stopping() || receiver_->takesNoMore())
        return true;
    std::uint32_t const position = reading_.reader().position();
    if (!connection_->endingFrom.has_value())
        connection_->endingFrom = position;
    if (!reading_.reader().hasData() || position - *connection_->endingFrom > 2 * kLargestRing)
        return true;
    receiver_->makeHot(*this);
    return false;
}

bool Channel::claimRing() {
    if (!stands() || !reading_.claim())
        return false;
    reading_.reader().wakeUp();
    return true;
}

void Channel::fallAsleep() {
    if (stands())
        reading_.reader().fallAsleep();
}

void Channel::wakeUp() {
    if (stands())
        reading_.reader().wakeUp();
}

bool Channel::leaveEmptyRing() {
    RingReader& reader = reading_.reader();
    bool const others = mayBeReadByCaller() || mayBeReadByWorker();
    if (!others || reading_.awaitsRing || reader.hasData() || ending())
        return false;
    reader.fallAsleep();
    if (reader.hasData()) {
        reader.wakeUp();
        return false;
    }
    if (reader.finishBatch())
        ringDoorBell(reading_.peerBell());
    reading_.shortages = 0;
    connection_->roomlessSince = 0;
    floods_ = false;
    unawaited_ = 0;
    left_ = true;
    leaveRing();
    return true;
}

/** Where the ring goes on is the receiving thread's to find out, without a bell. */
void Channel::leaveRing() {
    if (stands() && !reading_.awaitsRing)
        reading_.setFree();
}

}  // namespace Transport
