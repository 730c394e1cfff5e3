#include "platform/transport/local/DeferredHead.h"

#include "oswrap/Lock.h"

namespace Transport {

void DeferredHead::show(std::uint32_t position) {
    released_ = position;
    own_.head.store(position);
}

void DeferredHead::handedOn(std::uint32_t end) {
    OSWrap::Lock<> lock(mutex_);
    handed_ = passed_ = end;
}

void DeferredHead::passed(std::uint32_t end) {
    OSWrap::Lock<> lock(mutex_);
    passed_ = end;
    if (released_ != handed_)
        return;
    handed_ = end;
    show(end);
}

bool DeferredHead::release(std::uint32_t end) {
    OSWrap::Lock<> lock(mutex_);
    if (isBefore(end, released_) || isBefore(handed_, end))
        return false;
    if (end == handed_)
        end = handed_ = passed_;
    show(end);
    return mustRingLocked();
}

bool DeferredHead::mustRing() {
    OSWrap::Lock<> lock(mutex_);
    return mustRingLocked();
}

/** By what has been released: a peer that is rung for what has only been read finds no room. */
bool DeferredHead::mustRingLocked() {
    std::uint32_t const want = peer_.wantsSpace.load();
    if (want == lastWant_ || peer_.tail.load() - released_ > capacity_ / 2)
        return false;
    lastWant_ = want;
    return true;
}

void DeferredHead::goOnIn(std::uint32_t capacity) {
    OSWrap::Lock<> lock(mutex_);
    capacity_ = capacity;
}

}  // namespace Transport
