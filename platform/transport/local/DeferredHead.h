#pragma once

#include <cstdint>

#include "oswrap/Mutex.h"
#include "platform/transport/local/ControlPage.h"

namespace Transport {

/**
 * How far the peer is shown that its ring has been emptied, where who is handed the messages passes
 * them on, and says later that they may go. Until then they are their sender's, who has them back
 * should this process end.
 *
 * | position | behind |
 * |---|---|
 * | released | what may go: this is what the peer is shown |
 * | handed | the last message that has been handed on |
 * | passed | the last frame of all, also a piece of a message whose end has not come, or one that says
 * where the ring goes on |
 *
 * Each is never before the one above it, and all are the same once nothing that has been handed on
 * is kept. So the last piece of a message is never shown as taken before the message is released.
 * Any thread: who has the role of reading the ring tells what he has read, another one what may go.
 */
class DeferredHead {
public:
    DeferredHead(ControlPage& own, ControlPage const& peer, std::uint32_t capacity)
        : own_(own), peer_(peer), capacity_(capacity) {}
    DeferredHead(DeferredHead const&) = delete;
    DeferredHead& operator=(DeferredHead const&) = delete;

    /** A message that ends there has been handed on. */
    void handedOn(std::uint32_t end);
    /** A frame that ends there is of no more use by itself. */
    void passed(std::uint32_t end);
    /** What has been handed on may go, up to the message that ends there; no effect when that is
     * none that is kept. Whether the peer must be rung, as `mustRing`. */
    bool release(std::uint32_t end);
    /** Whether the peer wants space, and half of the ring is free; true once each time. */
    bool mustRing();
    /** From now on the ring is one of so many bytes. */
    void goOnIn(std::uint32_t capacity);

private:
    void show(std::uint32_t position) OSW_REQUIRES(mutex_);
    bool mustRingLocked() OSW_REQUIRES(mutex_);

    ControlPage& own_;
    ControlPage const& peer_;
    OSWrap::Mutex mutex_;  // a leaf
    std::uint32_t released_ OSW_GUARDED_BY(mutex_) = 0;
    std::uint32_t handed_ OSW_GUARDED_BY(mutex_) = 0;
    std::uint32_t passed_ OSW_GUARDED_BY(mutex_) = 0;
    std::uint32_t capacity_ OSW_GUARDED_BY(mutex_);
    std::uint32_t lastWant_ OSW_GUARDED_BY(mutex_) = 0;
};

}  // namespace Transport
