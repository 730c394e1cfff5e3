#pragma once

#include <bitset>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "oswrap/Mutex.h"
#include "platform/transport/link/Bus.h"
#include "platform/transport/link/Directory.h"
#include "platform/transport/link/Peer.h"
#include "platform/transport/link/Status.h"

namespace Link {

/**
 * This machine's link: the other links in sight, and a Peer for each of them. What the engine tells
 * of links waits until the control thread, which is the program's main one, takes it in `control`;
 * pieces and what happens to terminations of this machine go to the peers at once.
 */
class Exchange final : public BusListener, public DirectoryListener {
public:
    /** What the control thread is to do. */
    enum class Verdict {
        GoOn,
        Yield,  // another machine has this slot, and keeps it; there is a log line
    };

    /** `wake` is called on any thread when `control` has something to do; must not block. */
    Exchange(UnitInfo own, std::bitset<256> groups, void (*wake)());
    ~Exchange();
    Exchange(Exchange const&) = delete;
    Exchange& operator=(Exchange const&) = delete;

    // ---- Control thread ----
    /** Takes in what has happened. Peers are made once `join` has been called. */
    Verdict control();
    /** Whether it is to be called in a while, to try again what has failed. */
    bool hasUnmet() const { return hasUnmet_; }
    /** A machine in sight that has our slot; empty: none. */
    std::string rival() const;
    /** From now on peers are made on this bus, and this machine is shown to them. */
    void join(Bus& bus);
    /** Tells all peers what has been settled here, as far as they take it soon; call before they
     * see this link go. */
    void tellSettled();
    /** Ends all peers. Idempotent; the bus may end then. */
    void leave();
    /** Once the bus has ended: nobody is in sight, and there may be another bus. On that one this
     * link has another epoch: who has missed the end of the former one would take it for an
     * impostor. */
    void beginAnew(std::uint64_t epoch);
    void logFigures();
    /** Of all other machines in sight. */
    std::vector<PeerStatus> status() const;
    /** See Peer::oldestDebt. */
    long long oldestDebt() const;

    // ---- BusListener, DirectoryListener ----
    void unitSeen(UnitInfo const& unit) override;
    void unitLost(std::uint64_t epoch) override;
    void strangerSeen() override { wake_(); }
    void pieceArrived(std::uint64_t epoch, PieceHead const& head, unsigned char const* records,
                      std::size_t size) override;
    void memberArrived(TerminationId id, std::string const& names) override;
    void terminationLeft(TerminationId id) override;

private:
    using Peers = std::map<std::uint64_t, std::shared_ptr<Peer>>;
    struct Event {
        bool seen;
        UnitInfo unit;
    };

    std::deque<Event> takeEvents();
    void push(Event event);
    void keep(UnitInfo const& unit);
    void forget(std::uint64_t epoch);
    void meetAll();
    void meet(UnitInfo const& unit);
    void part(std::uint64_t epoch);
    void makePeer(UnitInfo const& unit);
    Peers peers() const;
    void buryEnded();
    bool isParting(unsigned char slot) const;
    void logNamesake() const;
    bool hasSuccessor(UnitInfo const& unit) const;
    bool isPassedOver(UnitInfo const& unit, Peers const& known) const;
    bool yields() const;

    UnitInfo own_;  // its epoch changes on the control thread, while there is no bus
    std::bitset<256> const groups_;
    void (*const wake_)();
    Directory directory_;

    // Control thread only.
    Bus* bus_ = nullptr;
    std::vector<UnitInfo> units_;  // in sight, in the order of coming; our own not among them
    bool hasUnmet_ = false;        // of whom no peer could be made, for want of memory for example
    std::vector<std::shared_ptr<Peer>> parting_;  // that are ending

    mutable OSWrap::Mutex mutex_;  // a leaf
    std::deque<Event> events_ OSW_GUARDED_BY(mutex_);
    Peers peers_ OSW_GUARDED_BY(mutex_);
};

/** A random number that is not 0. */
std::uint64_t randomToken();

}  // namespace Link
