#include "platform/transport/local/Ring.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace Transport {
namespace {

void copyIn(RingArea const& area, std::uint32_t position, void const* from, std::size_t length) {
    if (length == 0)
        return;
    std::uint32_t const at = position & (area.capacity - 1);
    std::size_t const first = std::min<std::size_t>(length, area.capacity - at);
    std::memcpy(area.mapping.data() + at, from, first);
    std::memcpy(area.mapping.data(), static_cast<unsigned char const*>(from) + first,
                length - first);
}

void copyFrom(RingArea const& area, std::uint32_t position, void* to, std::size_t length) {
    if (length == 0)
        return;
    std::uint32_t const at = position & (area.capacity - 1);
    std::size_t const first = std::min<std::size_t>(length, area.capacity - at);
    std::memcpy(to, area.mapping.data() + at, first);
    std::memcpy(static_cast<unsigned char*>(to) + first, area.mapping.data(), length - first);
}

}  // namespace

// ---- The record of frames -------------------------------------------------------------------

FrameStarts::FrameStarts(std::uint32_t capacity)
    : words_(new (std::nothrow) std::uint32_t[capacity / 8 / 32]()), mask_(capacity / 8 - 1) {}

void FrameStarts::note(std::uint32_t position, std::uint32_t bytes) {
    std::uint32_t const index = position / 8;
    clear(index, bytes / 8);
    words_[(index & mask_) / 32] |= 1u << index % 32;
}

/** A large frame covers many words, which are cleared all at once. */
void FrameStarts::clear(std::uint32_t index, std::uint32_t count) {
    while (count != 0) {
        std::uint32_t const first = index & mask_;
        std::uint32_t const bit = first % 32;
        std::uint32_t taken = std::min(count, 32 - bit);
        if (taken == 32) {
            std::uint32_t const words = std::min(count, mask_ + 1 - first) / 32;
            std::fill_n(&words_[first / 32], words, 0u);
            taken = 32 * words;
        } else {
            words_[first / 32] &= ~(~0u >> (32 - taken) << bit);
        }
        index += taken;
        count -= taken;
    }
}

// ---- What has been sent ---------------------------------------------------------------------

void SentMessages::forgetTaken() {
    while (!kept_.empty() && !isBefore(head_, kept_.front()->endInRing))
        kept_.pop();
    std::size_t emptied = 0;
    while (emptied < formerCount_ && !isBefore(head_, former_[emptied].end))
        ++emptied;
    if (emptied == 0)
        return;
    for (std::size_t i = emptied; i < formerCount_; ++i)
        former_[i - emptied] = std::move(former_[i]);
    for (std::size_t i = formerCount_ - emptied; i < formerCount_; ++i)
        former_[i] = Former();
    formerCount_ -= emptied;
}

/** The ring that a position lies in, and the position behind its last frame. */
RingArea const& SentMessages::areaAt(std::uint32_t position, std::uint32_t& end) const {
    for (std::size_t i = 0; i < formerCount_; ++i)
        if (isBefore(position, former_[i].end)) {
            end = former_[i].end;
            return former_[i].area;
        }
    end = tail_;
    return area_;
}

/** Of the one that the position lies in. A peer that says that it stands in the middle of a frame
 * has not taken that one. */
std::uint32_t SentMessages::startOfFrame(std::uint32_t position) const {
    std::uint32_t end = 0;
    RingArea const& area = areaAt(position, end);
    std::uint32_t start = position;
    while (!area.starts.at(start) && end - start < area.capacity)
        start -= 8;
    return area.starts.at(start) ? start : end;
}

/** Where the frame behind the one at `position` begins. */
std::uint32_t SentMessages::frameAfter(std::uint32_t position) const {
    std::uint32_t end = 0;
    RingArea const& area = areaAt(position, end);
    do
        position += 8;
    while (position != end && !area.starts.at(position));
    return position;
}

/** The message that ends with the frame between the head and `next`; empty when none does. False
 * when there is no memory for it. */
bool SentMessages::recoverFrame(std::uint32_t next, AddressedMessage& message) {
    if (!kept_.empty() && kept_.front()->endInRing == next) {
        message = kept_.pop();
        MessageChain::mark(message, MessageMark::ReachedRing);
        return true;
    }
    std::uint32_t end = 0;
    RingArea const& area = areaAt(head_, end);
    FrameHead head{};
    copyFrom(area, head_, &head, sizeof head);
    // One that was sent back, or, where the kernel cannot seal memory against it, what the peer has
    // written over the head.
    if (head.total != head.length || head.length > next - head_ - sizeof head)
        return true;
    message = allocateUninitialized(head.length);
    if (message.empty())
        return false;
    copyFrom(area, head_ + static_cast<std::uint32_t>(sizeof head), message.buf(), head.length);
    MessageChain::mark(message, MessageMark::ReachedRing);
    return true;
}

bool SentMessages::recover(MessageChain& queue, std::uint32_t originator,
                           std::uint32_t destination) {
    if (head_ != tail_)
        head_ = startOfFrame(head_);
    while (head_ != tail_) {
        std::uint32_t const next = frameAfter(head_);
        AddressedMessage message;
        if (!recoverFrame(next, message))
            return false;
        head_ = next;
        if (message.empty())
            continue;
        message.originator(originator);
        message.destination(destination);
        queue.push(std::move(message));
    }
    return true;
}

// ---- Sending end ---------------------------------------------------------------------------

RingWriter::RingWriter(ControlPage& own, ControlPage const& peer, RingArea area)
    : SentMessages(std::move(area)), own_(own), peer_(peer) {}

void RingWriter::refreshHead() {
    std::uint32_t const head = peer_.head.load();
    // The head can only move forward, up to what we have put in.
    if (tail_ - head > tail_ - head_ || head % 8 != 0) {
        broken_ = true;
        return;
    }
    head_ = head;
    forgetTaken();  // positions come round, so nothing may outlast half of them
}

/** Room for frames; a frame that tells of the next ring always fits besides. */
std::uint32_t RingWriter::room() {
    std::uint32_t const used = tail_ - head_ + static_cast<std::uint32_t>(sizeof(FrameHead));
    return used < area_.capacity ? area_.capacity - used : 0;
}

bool RingWriter::hasRoomFor(std::size_t length) {
    if (length > area_.capacity)
        return false;
    if (room() >= frameBytes(length))
        return !broken_;
    refreshHead();
    return !broken_ && room() >= frameBytes(length);
}

bool RingWriter::isLarge(std::size_t size) const {
    return size + sizeof(FrameHead) > area_.capacity / 2;
}

void RingWriter::writeFrame(unsigned char const* bytes, std::uint32_t length, std::uint32_t total) {
    FrameHead const head{length, total};
    copyIn(area_, tail_, &head, sizeof head);
    copyIn(area_, tail_ + static_cast<std::uint32_t>(sizeof head), bytes, length);
    area_.starts.note(tail_, frameBytes(length));
    tail_ += frameBytes(length);
    own_.tail.store(tail_);
}

bool RingWriter::put(unsigned char const* bytes, std::size_t size, std::uint32_t mark) {
    if (!hasRoomFor(size))
        return false;
    auto const total = static_cast<std::uint32_t>(size);
    writeFrame(bytes, total, total | mark);
    return true;
}

std::uint32_t RingWriter::putPiece(unsigned char const* bytes, std::uint32_t size,
                                   std::uint32_t done, std::uint32_t mark) {
    std::uint32_t const worthwhile = std::min(size - done, area_.capacity / 8);
    if (!hasRoomFor(worthwhile))
        return 0;
    std::uint32_t const fitting = (room() - static_cast<std::uint32_t>(sizeof(FrameHead))) & ~7u;
    std::uint32_t const length = std::min(size - done, fitting);
    writeFrame(bytes + done, length, size | mark);
    return length;
}

void RingWriter::keepUntilTaken(AddressedMessage message) {
    forgetTaken();
    kept_.push(std::move(message));
    kept_.back().endInRing = tail_;
}

void RingWriter::goOnIn(RingArea area) {
    forgetTaken();
    writeFrame(nullptr, 0, kNextRing);
    former_[formerCount_++] = {std::move(area_), tail_};
    area_ = std::move(area);
}

bool RingWriter::mustRing() {
    std::uint32_t const asleep = peer_.asleep.load();
    if (asleep == 0 || asleep == lastRung_)
        return false;
    lastRung_ = asleep;
    return true;
}

void RingWriter::wantSpace() {
    forgetTaken();
    own_.wantsSpace.store(own_.wantsSpace.load(std::memory_order_relaxed) + 1);
}

bool RingWriter::allTaken() {
    refreshHead();
    return head_ == tail_;
}

SentMessages RingWriter::giveUp() {
    refreshHead();
    return std::move(static_cast<SentMessages&>(*this));
}

// ---- Receiving end ---------------------------------------------------------------------------

RingReader::RingReader(ControlPage& own, ControlPage const& peer, RingArea area,
                       std::shared_ptr<PeerShare> share, std::optional<std::uint32_t> placesFrom)
    : own_(own),
      peer_(peer),
      area_(std::move(area)),
      placesFrom_(placesFrom.value_or(0)),
      unfinished_(PeerShare::Kind::Unfinished, std::move(share)) {
    if (placesFrom.has_value())
        deferred_.emplace(own_, peer_, area_.capacity);
}

RingReader::Result RingReader::next(AddressedMessage& message) {
    if (head_ == tail_) {
        tail_ = peer_.tail.load();
        if (deferred_.has_value() && tail_ - shownPosition() > kLargestRing)
            return Result::Garbage;  // it has written over what it was not told is free
    }
    if (head_ == tail_)
        return Result::Nothing;
    return nextFrame(message);
}

RingReader::Result RingReader::nextFrame(AddressedMessage& message) {
    std::uint32_t const filled = tail_ - head_;
    if (filled > kLargestRing || filled % 8 != 0)
        return Result::Garbage;
    FrameHead head{};
    copyFrom(area_, head_, &head, sizeof head);
    if (head.total == kNextRing) {
        if (head.length != 0 || partTotal_ != 0)
            return Result::Garbage;
        head_ += static_cast<std::uint32_t>(sizeof head);
        pass();
        return Result::NextRing;
    }
    std::uint32_t const mark = head.total & kSentBack;
    head.total -= mark;
    if (head.total > kLargestMessage || head.length > head.total ||
        (head.length == 0 && head.total != 0) || frameBytes(head.length) > filled ||
        frameBytes(head.length) > area_.capacity)
        return Result::Garbage;
    if (partTotal_ == 0)
        return firstFrame(head, mark, message);
    if (head.total != partTotal_ || mark != partMark_ || head.length > partTotal_ - partDone_)
        return Result::Garbage;
    return endFrame(head, message);
}

RingReader::Result RingReader::firstFrame(FrameHead const& head, std::uint32_t mark,
                                          AddressedMessage& message) {
    // What is claimed is allocated before the rest has come, which may be never.
    if (head.length != head.total && !unfinished_.grow(head.total))
        return Result::NoRoom;
    partial_ = allocateUninitialized(head.total);
    if (partial_.empty()) {
        unfinished_.shrinkTo(0);
        return Result::NoMemory;
    }
    partTotal_ = head.total;
    partDone_ = 0;
    partMark_ = mark;
    return endFrame(head, message);
}

/** Copies the frame's bytes into the message that is being put together. */
RingReader::Result RingReader::endFrame(FrameHead const& head, AddressedMessage& message) {
    copyOut(partial_.buf() + partDone_, head_ + static_cast<std::uint32_t>(sizeof head),
            head.length);
    partDone_ += head.length;
    head_ += frameBytes(head.length);
    if (partDone_ < partTotal_) {
        pass();
        return Result::Piece;
    }
    lastFrame_ = frameBytes(head.length);
    partTotal_ = 0;
    if (unfinished_.bytes() != 0)
        unfinished_.shrinkTo(0);
    message = std::exchange(partial_, AddressedMessage());
    MessageChain::endInRing(message, place());
    return Result::Message;
}

/** One of ours that comes back is nobody's but ours: it need not be released. */
void RingReader::keepForOwner() {
    isSentBack() ? deferred_->passed(head_) : deferred_->handedOn(head_);
}

void RingReader::goOnIn(RingArea area) {
    area_ = std::move(area);
    if (deferred_.has_value())
        deferred_->goOnIn(area_.capacity);
}

void RingReader::copyOut(unsigned char* to, std::uint32_t position, std::uint32_t length) const {
    copyFrom(area_, position, to, length);
}

void RingReader::fallAsleep() {
    if (++sleepCount_ == 0)
        ++sleepCount_;
    own_.asleep.store(sleepCount_);
}

void RingReader::wakeUp() {
    own_.asleep.store(0, std::memory_order_relaxed);
}

/** A sender that is woken for a few bytes sleeps again before the next few are free. While more
 * than half of the ring is filled there is more to read, so its turn comes. */
bool RingReader::finishBatch() {
    if (deferred_.has_value())
        return deferred_->mustRing();
    own_.head.store(head_);
    std::uint32_t const want = peer_.wantsSpace.load();
    if (want == lastWant_ || peer_.tail.load() - head_ > area_.capacity / 2)
        return false;
    lastWant_ = want;
    return true;
}

}  // namespace Transport
