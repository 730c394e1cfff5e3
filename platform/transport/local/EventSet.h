#pragma once

#include <atomic>
#include <cstdint>

#include "platform/transport/local/Descriptor.h"

namespace Transport {

/** Has a set of descriptors wait for a door bell. A ring wakes one thread, in the first set in
 * which somebody waits, in the order in which the bell was given to them. False, with errno, on
 * failure. */
bool watchDoorBell(int epoll, int bell, std::uint64_t data);

/**
 * What a receiving thread sleeps on: its descriptors, and the bell with which others of this
 * process wake it. Waits and watches belong to that thread; `wake` is for all.
 */
class EventSet {
public:
    /** Which descriptor of a channel or of the receiver an event is about. */
    enum class Source : std::uint32_t { WakeUp = 0, Listening = 1, Socket = 2, Bell = 3 };
    struct Event {
        std::uint32_t token;  // given to `watch`
        Source source;
    };
    static constexpr int kMostAtOnce = 32;

    EventSet() = default;
    EventSet(EventSet const&) = delete;
    EventSet& operator=(EventSet const&) = delete;

    /** False, with errno, on failure. */
    bool open();
    bool watch(int fd, std::uint32_t token, Source source);
    void unwatch(int fd);

    /** Readable while there are events to wait for: for who waits for several such sets. */
    int descriptor() const { return epoll_.get(); }

    // ---- Any thread ----
    /** Has the thread look for what has been put in its inbox. */
    void wake();

    // ---- Receiving thread ----
    /** Whether somebody has called `wake` since the last `takeAttention`. */
    bool attention() const { return attention_.load(); }
    bool takeAttention();
    void needAttention() { attention_.store(true); }
    /** From here on `wake` rings the bell; look once more at `attention` before `wait`. */
    void fallAsleep() { asleep_.store(true); }
    void stayAwake() { asleep_.store(false); }
    /** Waits (-1: without limit) and fills in what has happened; answers how much. The thread is
     * awake again then. */
    int wait(int timeoutMilliseconds, Event (&events)[kMostAtOnce]);

private:
    std::atomic<bool> attention_{false};
    std::atomic<bool> asleep_{false};  // ring the bell to be heard
    Descriptor epoll_;
    Descriptor bell_;
};

}  // namespace Transport
