#pragma once

#include <atomic>
#include <bitset>
#include <deque>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "oswrap/ConditionVar.h"
#include "oswrap/Mutex.h"
#include "oswrap/Thread.h"
#include "platform/transport/link/Bus.h"
#include "platform/transport/link/Directory.h"
#include "platform/transport/link/Proxy.h"
#include "platform/transport/link/Session.h"
#include "platform/transport/link/Status.h"

namespace Link {

/**
 * Another machine's link, as long as it runs: the session with it, and the proxies of its
 * terminations.
 *
 * | thread | does |
 * |---|---|
 * | the engine's | takes pieces in, and issues what they bring |
 * | those that receive for the proxies | hand over what local terminations send, and write pieces |
 * | `LnSend` | writes what has to be written at a time, or when another thread may not |
 * | `LnShow` | shows proxies and takes them away, which may wait |
 *
 * What a session wants done is done in its order, by one thread at a time: whoever has just brought
 * it about, up to something that may wait; from there on by `LnShow`. Proxies that are to go stay
 * while something may still be let out of them, and nobody waits for that but who comes under the
 * address of one: what the session wants done in his name is set aside until it has left.
 *
 * When memory runs out in the middle of something, LnSend ends the session, and the next one begins
 * as after a parting: what was not settled goes back to its senders, here and over there.
 *
 * Lock order: places_ before the channels' locks; state_ before the switchboard's. Neither under
 * the other.
 */
class Peer final : public ProxyListener {
public:
    /** `tellEnded` is called on a thread of this one when `hasEnded`; must not block. */
    Peer(UnitInfo unit, Session::Setup setup, Directory const& directory,
         std::unique_ptr<BusWriter> writer, void (*tellEnded)());
    ~Peer();
    Peer(Peer const&) = delete;
    Peer& operator=(Peer const&) = delete;

    UnitInfo const& unit() const { return unit_; }
    /** False, with a log line, when there are no threads. */
    bool start();
    /** Has what has been settled written without delay: what is not told goes back to its sender.
     */
    void tellSettled();
    /** Whether that has been done, or is of no use any more. */
    bool hasToldSettled();
    /** Ends the session, with all that belongs to it, and the threads; does not wait for that. */
    void beginToStop();
    /** Whether a `stop` need not wait any more. */
    bool hasEnded() const { return ended_.load(); }
    /** Does the same, waits, and ends the writer: what is left may end on any thread. Idempotent.
     */
    void stop();
    /** The engine sees the link. */
    void seen();
    /** On a thread of the engine, in order. */
    void pieceArrived(PieceHead const& head, unsigned char const* records, std::size_t size);
    /** Of this machine. */
    void memberArrived(TerminationId id, std::string const& names);
    void terminationLeft(TerminationId id);
    /** A line in the log. */
    void logFigures();
    /** All but who it is. */
    PeerStatus status();
    /** For how many nanoseconds a thread has been at one thing: at writing, at what the session
     * wants, or without an answer to this question, which LnSend and LnShow answer. */
    long long oldestDebt();

    // ---- ProxyListener ----
    void forward(AddressedMessage const& message, std::uint32_t channel,
                 unsigned long session) override;
    std::optional<std::uint32_t> connectionEnded(TerminationId from, TerminationId to,
                                                 std::uint32_t channel, unsigned long session,
                                                 bool takenBack) override;
    void forwarded() override;
    void delivered(TerminationId from, TerminationId to, std::uint64_t place) override;
    void channelBegan(TerminationId peer, std::uint32_t channel, unsigned long session) override;
    void channelCleared(TerminationId peer, std::uint32_t channel, unsigned long session) override;
    void cameBack(AddressedMessage const& message, Transport::Reached reached,
                  unsigned long session, bool leaves) override;

private:
    using Key = std::uint64_t;
    struct Placed {
        Delivery delivery;
        std::uint64_t place;
    };

    static Key key(TerminationId from, TerminationId to) {
        return std::uint64_t{from.value()} << 32 | to.value();
    }
    template <class Act>
    bool attempt(Act const& act) OSW_REQUIRES(state_);
    void noteHalfDone() OSW_REQUIRES(state_);
    void endHalfDone();
    void endWithoutMemory() OSW_REQUIRES(state_);
    void performRest(Actions& actions);
    void lost();
    void sending();
    void write() OSW_EXCLUDES(state_);
    long long wakeAt() OSW_REQUIRES(state_);
    void wakeSenderLocked() OSW_REQUIRES(state_);
    void wantWriteLocked() OSW_REQUIRES(state_);

    enum class By { Anyone, Shower };
    void showing();
    bool awaitWork();
    void carryOut(By by) OSW_EXCLUDES(state_);
    void awaitOthers() OSW_REQUIRES(state_);
    bool takeNext(By by, Actions& next) OSW_REQUIRES(state_);
    void carryOutAll(By by) OSW_REQUIRES(state_);
    void setAside(Actions& actions);
    bool letLeave() OSW_REQUIRES(state_);
    void leave();
    void perform(Actions& actions);
    unsigned long takeFromFormer(Actions& actions);
    bool partFrom(Actions const& actions);
    void deliver(Action& action, std::vector<Delivery>& settled, std::vector<Delivery>& refused);
    void opened();
    void ended(std::string const& reason);
    void show(Actions const& actions);
    void drop(Actions const& actions);
    void forgetPlaces(std::vector<TerminationId> const& gone);
    std::vector<Delivery> takePlaced(TerminationId from, TerminationId to, std::uint64_t place);
    std::vector<Delivery> takeFirstPlaced(TerminationId from, TerminationId to);
    void settle(std::vector<Delivery> const& settled, std::vector<Delivery> const& refused);

    UnitInfo const unit_;
    std::bitset<256> const groups_;
    Directory const& directory_;
    std::unique_ptr<BusWriter> writer_;  // ends in `stop`: the engine's threads may not end it

    // Pieces are taken in one by one, whichever threads the engine has.
    OSWrap::Mutex arriving_;

    OSWrap::ConditionVar state_;  // signalled for LnSend, and LnShow
    Session session_ OSW_GUARDED_BY(state_);
    Actions todo_ OSW_GUARDED_BY(state_);
    bool performing_ OSW_GUARDED_BY(state_) = false;
    bool showerWaits_ OSW_GUARDED_BY(state_) = false;  // until nobody else performs
    bool writing_ OSW_GUARDED_BY(state_) = false;
    bool writeWanted_ OSW_GUARDED_BY(state_) = false;  // by LnSend
    bool stopping_ OSW_GUARDED_BY(state_) = false;
    bool halfDone_ OSW_GUARDED_BY(state_) =
        false;  // by the session, for want of memory: to be ended
    long long sleepsUntil_ OSW_GUARDED_BY(state_) = 0;  // LnSend; 0: does not
    // Since when a thread is at it; kNever: none is.
    long long writingSince_ OSW_GUARDED_BY(state_) = Session::kNever;
    long long performingSince_ OSW_GUARDED_BY(state_) = Session::kNever;
    // That one owes an answer, unless it is at work: then its work tells.
    long long senderOwesSince_ OSW_GUARDED_BY(state_) = Session::kNever;
    bool senderWorks_ OSW_GUARDED_BY(state_) = false;

    std::atomic<unsigned long> departures_{
        0};  // that were told here; changes with the state locked

    OSWrap::ConditionVar work_;  // signalled for LnShow; a leaf
    bool workWaits_ OSW_GUARDED_BY(work_) = false;
    bool workEnds_ OSW_GUARDED_BY(work_) = false;
    long long showerOwesSince_ OSW_GUARDED_BY(work_) = Session::kNever;
    bool showerWorks_ OSW_GUARDED_BY(work_) = false;

    OSWrap::Mutex places_;
    std::unordered_map<Key, std::deque<Placed>> placed_ OSW_GUARDED_BY(places_);

    Piece piece_;  // of the thread that has set writing_

    // Shared by the proxies of this peer alone, so that one which is slow holds up no other.
    Transport::ReceiverPool receiving_;

    // Of the thread that has set performing_.
    using Proxies = std::map<TerminationId, std::unique_ptr<Proxy>>;
    Proxies proxies_;
    Proxies leaving_;  // that take no more; changed by LnShow alone
    Actions aside_;    // of those whose former proxy is leaving

    void (*const tellEnded_)();
    std::atomic<bool> ended_{false};  // LnShow, which is the last

    OSWrap::MethodThread<Peer> sender_;
    OSWrap::MethodThread<Peer> shower_;
};

}  // namespace Link
