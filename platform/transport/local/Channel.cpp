#include "platform/transport/local/Channel.h"

#include <algorithm>

#include "logging/LineLimit.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "platform/transport/local/Bell.h"
#include "platform/transport/local/Receiver.h"

// Messages into the ring and out of it. The connection under it is in ChannelConnection.cpp.

namespace Transport {
namespace {

constexpr int kMessagesPerBatch = 64;
constexpr std::uint32_t kBytesPerBatch = 64 * 1024;

}  // namespace

Channel::Channel(std::shared_ptr<Receiver> receiver, TerminationId peer)
    : receiver_(std::move(receiver)),
      ownId_(receiver_->id()),
      peer_(peer),
      token_(Receiver::newToken()) {}

Channel::~Channel() = default;

Packet Channel::packet(Packet::Kind kind, std::uint32_t ringCapacity) const {
    return {kMagic,        kProtocolVersion, kind,        ownId_.value(),
            peer_.value(), kLayoutCheck,     ringCapacity};
}

// ---- Sending: any thread -----------------------------------------------------------------------

Channel::Sent Channel::send(AddressedMessage const& message, bool peerExists, Room room) {
    OSWrap::Lock<> lock(mutex_);
    if (state_ == State::Gone || !receiver_->sending())
        return Sent::Refused;
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
    return enqueueLocked(message, room);
}

bool Channel::putLocked(AddressedMessage const& message) {
    if (writer_->put(message.buf(), message.size()))
        return true;
    return growLocked(message.size()) && writer_->put(message.buf(), message.size());
}

Channel::Sent Channel::enqueueLocked(AddressedMessage const& message, Room room) {
    if (!queue_.hasRoomFor(message.size(), room))
        return Sent::Refused;
    AddressedMessage copy = copyOf(message);
    if (copy.empty())
        return Sent::Refused;
    pushLocked(std::move(copy));
    return Sent::Taken;
}

void Channel::pushLocked(AddressedMessage message) {
    message.originator(ownId_);
    message.destination(peer_);
    queue_.push(std::move(message));
    receiver_->unsentMore();
    if (state_ == State::Open) {
        drainLocked();
    } else if (state_ == State::Idle) {
        state_ = State::Wanted;
        receiver_->request(*this);
    }
}

bool Channel::sendAgain(AddressedMessage message) {
    OSWrap::Lock<> lock(mutex_);
    if (state_ == State::Gone || !receiver_->sending() ||
        !queue_.hasRoomFor(message.size(), Room::ForAnswers))
        return false;
    noteSentAgain(message);
    pushLocked(std::move(message));
    return true;
}

/** Sends on from the queue what fits. When the ring is full, the peer is asked to ring when it has
 * taken something, and the receiving thread goes on then. */
void Channel::drainLocked() {
    while (!queue_.empty()) {
        if (sendFrontLocked() || growLocked(queue_.front()->size))
            continue;
        if (writer_->broken())
            receiver_->request(*this);
        if (std::exchange(spaceAsked_, true))
            break;
        writer_->wantSpace();
    }
    ringIfAsleepLocked();
}

/** Whether anything went into the ring. */
bool Channel::sendFrontLocked() {
    MessageBlock const& front = *queue_.front();
    if (frontDone_ == 0 && writer_->put(front.data(), front.size)) {
        AddressedMessage sent = popFrontLocked();
        if (wasSentAgain(sent))
            writer_->keepUntilTaken(std::move(sent));
        return true;
    }
    if (frontDone_ == 0 && !writer_->isLarge(front.size))
        return false;
    std::uint32_t const done = writer_->putPiece(front.data(), front.size, frontDone_);
    frontDone_ += done;
    if (frontDone_ == front.size) {
        writer_->keepUntilTaken(popFrontLocked());
        frontDone_ = 0;
    }
    return done != 0;
}

AddressedMessage Channel::popFrontLocked() {
    receiver_->unsentLess(1);
    return queue_.pop();
}

/** Goes on in a larger ring if one is allowed for messages of this size. */
bool Channel::growLocked(std::size_t messageSize) {
    std::uint32_t const bound = messageSize > kUsualRing / 8 ? kLargestRing : kUsualRing;
    std::uint32_t wanted = writer_->capacity();
    if (growthFailed_ || wanted >= bound || frontDone_ != 0 || writer_->broken())
        return false;
    do
        wanted *= 4;
    while (wanted < bound && wanted / 4 < messageSize);
    wanted = std::min(wanted, bound);
    growthFailed_ = true;
    Descriptor const file = makeSealedFile(wanted);
    if (!file.valid())
        return false;
    RingArea area;
    area.capacity = wanted;
    area.mapping = Mapping::of(file.get(), 0, wanted, Mapping::Access::ReadWrite);
    area.starts = FrameStarts(wanted);
    sealWriting(file.get());
    if (!area.mapping.valid() || !area.starts.valid() ||
        sendPacket(socket_.get(), packet(Packet::NextRing, wanted), file.get()) != Transfer::Done)
        return false;
    growthFailed_ = false;
    writer_->goOnIn(std::move(area));
    return true;
}

void Channel::ringIfAsleepLocked() {
    if (writer_->mustRing())
        ringDoorBell(peerBell_);
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

// ---- The ring: receiving thread ----------------------------------------------------------------

void Channel::onBell() {
    if (!reader_.has_value())
        return;
    receiver_->makeHot(*this);
    OSWrap::Lock<> lock(mutex_);
    spaceAsked_ = false;
    growthFailed_ = false;
    if (state_ == State::Open && !queue_.empty())
        drainLocked();
}

bool Channel::receiveBatch() {
    if (!reader_.has_value())
        return false;
    if (heldBack_.load() && !ending()) {
        receiver_->makeCold(*this);  // awake, so that the peer need not ring
        return false;
    }
    Batch const batch = readBatch();
    if (batch == Batch::Garbage)
        closeForGarbage("its ring holds nonsense");
    else if (batch == Batch::NoMemory)
        closeForShortage();
    else if (ending() || byeSeen_ || garbageSeen_)
        react();
    return batch != Batch::Empty;
}

Channel::Batch Channel::readBatch() {
    std::uint32_t const start = reader_->position();
    for (int count = 0; count < kMessagesPerBatch && !receiver_->stopping() &&
                        reader_->position() - start < kBytesPerBatch;
         ++count) {
        if (awaitsRing_ && !switchRing()) {
            if (!starved_)
                return Batch::Garbage;
            break;
        }
        if (count > 0 && heldBack_.load(std::memory_order_relaxed) && !ending())
            break;
        AddressedMessage message;
        RingReader::Result const result = reader_->next(message);
        if (result == RingReader::Result::Garbage)
            return Batch::Garbage;
        if (result == RingReader::Result::NoMemory)
            return awaitMemory();
        shortages_ = 0;
        awaitsRing_ = result == RingReader::Result::NextRing;
        if (result == RingReader::Result::Nothing ||
            (result == RingReader::Result::Message && !take(message)))
            break;
    }
    if (reader_->position() == start)
        return Batch::Empty;
    if (reader_->finishBatch())
        ringDoorBell(peerSide_.bell.get());
    return Batch::More;
}

/** Hands a message to the termination; false when that has begun to stop, and the message stays its
 * sender's. */
bool Channel::take(AddressedMessage& message) {
    if (receiver_->stopping()) {
        reader_->leave();
        return false;
    }
    reader_->keep();
    message.originator(peer_);
    message.destination(ownId_);
    receiver_->deliver(message);
    return true;
}

/** The message stays in the ring for a second at most; then the channel is given up, and it goes
 * back to its sender with those behind it. */
Channel::Batch Channel::awaitMemory() {
    constexpr int kMostShortages = 100;
    if (++shortages_ > kMostShortages)
        return Batch::NoMemory;
    OSWrap::awaitMemory();
    return Batch::More;
}

/** The file of the next ring was sent before the ring told of it. */
bool Channel::switchRing() {
    if (nextRings_.empty() && !starved_)
        readPackets();
    if (nextRings_.empty())
        return false;
    reader_->goOnIn(std::move(nextRings_.front()));
    nextRings_.pop_front();
    awaitsRing_ = false;
    return true;
}

/** Before a close: whether everything that the peer has put in has been taken in. If not, the turns
 * that follow do that, a batch each. Bounded, for a peer that goes on writing after it has said its
 * last word. */
bool Channel::hasReadAll() {
    if (!reader_.has_value() || receiver_->stopping())
        return true;
    if (!endingFrom_.has_value())
        endingFrom_ = reader_->position();
    if (!reader_->hasData() || reader_->position() - *endingFrom_ > 2 * kLargestRing)
        return true;
    receiver_->makeHot(*this);
    return false;
}

void Channel::fallAsleep() {
    if (reader_.has_value())
        reader_->fallAsleep();
}

void Channel::wakeUp() {
    if (reader_.has_value())
        reader_->wakeUp();
}

}  // namespace Transport
