#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/transport/local/Descriptor.h"
#include "platform/transport/local/Ring.h"

namespace Transport {

/**
 * The receiving end of a channel's ring, and the *role* of reading it, which one thread has at a
 * time: the receiving thread, or a thread that waits for something that comes from there.
 *
 * | role | who may read | the word `asleep` | who looks next |
 * |---|---|---|---|
 * | Receivers | the receiving thread | 0 while it looks by itself, else any | that thread: it looks, has been asked to, or tries again at a time; before a ring stands, nobody |
 * | Held | another thread | 0, or not 0 while it sleeps at the bell | that thread |
 * | Rung | the same | any | that thread, once more before it leaves: the receiving thread has heard the bell |
 * | Wanted | the same | any | that thread hands the role to the receiving thread, which needs it to close |
 * | Free | nobody | not 0 | who is woken by the bell |
 *
 * Invariant: in Free the ring was seen empty after the word had been set, so whatever comes since
 * then rings; a bell that is heard in another state has the role's holder look.
 * So no message lies unseen. Nobody waits for the role: who finds it taken leaves a mark, and the
 * holder, whose turns are bounded, sees it before it goes. Only the receiving thread opens and
 * closes the ring, and only with the role.
 */
class ReadingEnd {
public:
    ReadingEnd() = default;
    ReadingEnd(ReadingEnd const&) = delete;
    ReadingEnd& operator=(ReadingEnd const&) = delete;

    // ---- Receiving thread ----
    /** Readers that sleep at the bell, which is our own, will be the first to hear it: to be called
     * before anybody else can wait for it. Without memory for that nobody will read for himself. */
    void watch(int ownBell);
    /** The ring stands. `share`: of the peer's process; `placesFrom`: see RingReader. */
    void open(ControlPage& own, ControlPage const& peer, RingArea area,
              std::shared_ptr<PeerShare> share, int peerBell,
              std::optional<std::uint32_t> placesFrom);
    /** With the role. */
    void close();
    bool stands() const { return reader_.has_value(); }
    /** Takes the role if nobody has it; whether it is the receiving thread's now. */
    bool claim();
    /** The same; and if another thread has it, that one is to hand it over soon. */
    bool demand();
    /** Gives the role back after `reader().fallAsleep` and a look that has found nothing. */
    void setFree() { role_.store(Role::Free); }
    bool isReceivers() const { return role_.load() == Role::Receivers; }
    /** The thread has heard the bell: takes the role if nobody has it, else its holder is to look
     * once more. Whether it is the receiving thread's now. */
    bool heard();

    // ---- Other threads ----
    /** Takes the role if nobody has it, and looks at the ring from now on. */
    bool tryTake();
    /** Ends that. False when the receiving thread has the role now and is to be asked to look. */
    bool giveBack();
    /** With the role: gives it to the receiving thread, which is to be asked to look. */
    void handOver() { role_.store(Role::Receivers); }
    /** Whether the receiving thread waits for the role. */
    bool wanted() const { return role_.load() == Role::Wanted; }
    /** A worker has heard the bell in the receiving thread's place: takes the role as `tryTake`, if
     * nobody has it. Else its holder is to look once more: another thread does; the receiving
     * thread, which may be about to leave the ring, is to be asked to. */
    enum class Heard { Taken, ByHolder, ByReceiver };
    Heard heardByWorker();
    /** With the role, where `canSleep`: from here on the bell rings. False when there is something
     * to do at once. */
    bool fallAsleep();
    /** Sleeps until the bell rings; a cancellation point. */
    void sleepAtBell(long long nanoseconds) const;

    // ---- Any thread ----
    /** Rings our own bell, while somebody has the role. Never blocks. */
    void ring() const;

    // ---- With the role ----
    /** Whether who has it may sleep at the bell. */
    bool canSleep() const { return sleepers_.valid(); }
    RingReader& reader() { return *reader_; }
    RingReader const& reader() const { return *reader_; }
    int peerBell() const { return peerBell_; }
    bool awaitsRing = false;  // the ring goes on in one that has not been taken in yet
    int shortages = 0;        // looks in a row at a message for which there is no memory

private:
    enum class Role : std::uint32_t { Receivers, Held, Rung, Wanted, Free };

    std::atomic<Role> role_{Role::Receivers};
    std::optional<RingReader> reader_;
    Descriptor sleepers_;  // what those who sleep at the bell wait on
    int ownBell_ = -1;
    int peerBell_ = -1;
};

}  // namespace Transport
