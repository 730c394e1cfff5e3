#include "platform/transport/link/Exchange.h"

#include <sys/random.h>

#include <algorithm>
#include <utility>

#include "logging/LineLimit.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/Thread.h"

namespace Link {
namespace {

constexpr char const* kSource = "LinkExchange";
/** So long all peers together may take to be told what has been settled. */
constexpr long long kTelling = 500'000'000;
constexpr unsigned long kLook = 1'000'000;

}  // namespace

std::uint64_t randomToken() {
    std::uint64_t token = 0;
    while (token == 0)
        if (getrandom(&token, sizeof token, 0) != static_cast<ssize_t>(sizeof token))
            token = 0;
    return token;
}

Exchange::Exchange(UnitInfo own, std::bitset<256> groups, void (*wake)())
    : own_(std::move(own)), groups_(groups), wake_(wake), directory_(own_.slot, *this) {}

Exchange::~Exchange() {
    leave();
}

// ---- What the engine and the transport tell ----------------------------------------------------

void Exchange::push(Event event) {
    OSWrap::untilMemory([&] {
        OSWrap::Lock<> lock(mutex_);
        events_.push_back(std::move(event));
    });
    wake_();
}

void Exchange::unitSeen(UnitInfo const& unit) {
    if (unit.epoch != own_.epoch)
        push({true, unit});
}

void Exchange::unitLost(std::uint64_t epoch) {
    UnitInfo unit;
    unit.epoch = epoch;
    push({false, unit});
}

void Exchange::pieceArrived(std::uint64_t epoch, PieceHead const& head,
                            unsigned char const* records, std::size_t size) {
    std::shared_ptr<Peer> peer;
    {
        OSWrap::Lock<> lock(mutex_);
        auto const found = peers_.find(epoch);
        if (found == peers_.end())
            return;  // it says the same again until it is known here
        peer = found->second;
    }
    peer->pieceArrived(head, records, size);
}

Exchange::Peers Exchange::peers() const {
    OSWrap::Lock<> lock(mutex_);
    return peers_;
}

void Exchange::memberArrived(TerminationId id, std::string const& names) {
    for (auto const& [epoch, peer] : peers())
        peer->memberArrived(id, names);
}

void Exchange::terminationLeft(TerminationId id) {
    for (auto const& [epoch, peer] : peers())
        peer->terminationLeft(id);
}

// ---- Control thread ----------------------------------------------------------------------------

void Exchange::join(Bus& bus) {
    bus_ = &bus;
    directory_.start();
    meetAll();
}

/** The place of one that has gone is free for another machine in sight. */
void Exchange::meetAll() {
    for (UnitInfo const& unit : units_)
        if (bus_ != nullptr)
            meet(unit);
}

void Exchange::keep(UnitInfo const& unit) {
    auto const known = std::find_if(units_.begin(), units_.end(), [&unit](UnitInfo const& one) {
        return one.epoch == unit.epoch;
    });
    if (known == units_.end())
        units_.push_back(unit);
    else
        *known = unit;
}

void Exchange::forget(std::uint64_t epoch) {
    units_.erase(std::remove_if(units_.begin(), units_.end(),
                                [epoch](UnitInfo const& one) { return one.epoch == epoch; }),
                 units_.end());
}

void Exchange::tellSettled() {
    Peers const known = peers();
    for (auto const& [epoch, peer] : known)
        peer->tellSettled();
    long long const until = OSWrap::Clock::nowNanoseconds() + kTelling;
    for (auto const& [epoch, peer] : known)
        while (!peer->hasToldSettled() && OSWrap::Clock::nowNanoseconds() < until)
            OSWrap::Thread::sleep(0, kLook);
}

void Exchange::leave() {
    if (std::exchange(bus_, nullptr) == nullptr)
        return;
    directory_.stop();
    Peers last;
    {
        OSWrap::Lock<> lock(mutex_);
        last.swap(peers_);
    }
    for (auto const& [epoch, peer] : last)
        peer->beginToStop();  // so that they linger together
    for (auto const& [epoch, peer] : last)
        peer->stop();
    for (auto const& peer : parting_)
        peer->stop();
    parting_.clear();
}

void Exchange::beginAnew(std::uint64_t epoch) {
    takeEvents();
    units_.clear();
    own_.epoch = epoch;
}

std::deque<Exchange::Event> Exchange::takeEvents() {
    OSWrap::Lock<> lock(mutex_);
    return std::exchange(events_, {});
}

void Exchange::buryEnded() {
    parting_.erase(std::remove_if(parting_.begin(), parting_.end(),
                                  [](auto const& peer) {
                                      bool const ended = peer->hasEnded();
                                      if (ended)
                                          peer->stop();
                                      return ended;
                                  }),
                   parting_.end());
}

Exchange::Verdict Exchange::control() {
    buryEnded();
    if (std::exchange(hasUnmet_, false))
        meetAll();
    std::deque<Event> const events = takeEvents();
    for (Event const& event : events) {
        if (!event.seen) {
            forget(event.unit.epoch);
            part(event.unit.epoch);
            meetAll();
            continue;
        }
        keep(event.unit);
        if (bus_ == nullptr)
            continue;
        if (event.unit.slot == own_.slot && event.unit.machine == own_.machine)
            logNamesake();
        if (yields())
            return Verdict::Yield;
        meet(event.unit);
    }
    return Verdict::GoOn;
}

std::string Exchange::rival() const {
    for (UnitInfo const& unit : units_)
        if (unit.slot == own_.slot && unit.machine != own_.machine)
            return unit.machine;
    return {};
}

/** Machines that were copied have one name, unless they are told another. */
void Exchange::logNamesake() const {
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                           "another link is slot %u, machine %s, too: one of the two needs another "
                           "--slot and --machine",
                           unsigned{own_.slot}, own_.machine.c_str());
}

/** Two networks of which each had a machine of this slot have become one. */
bool Exchange::yields() const {
    std::string const other = rival();
    if (other.empty())
        return false;
    if (own_.machine < other) {
        static Logging::LineLimit limit;
        REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                               "machine %s has slot %u, too: this one, %s, keeps it", other.c_str(),
                               unsigned{own_.slot}, own_.machine.c_str());
        return false;
    }
    REFLECTORB_LOG(3, kSource, "machine %s has slot %u: this one, %s, gives it up", other.c_str(),
                   unsigned{own_.slot}, own_.machine.c_str());
    return true;
}

/** Whether its machine has started its link again: one that was killed stays in sight for a while.
 */
bool Exchange::hasSuccessor(UnitInfo const& unit) const {
    bool later = false;
    for (UnitInfo const& one : units_) {
        if (later && one.slot == unit.slot && one.machine == unit.machine)
            return true;
        later = later || one.epoch == unit.epoch;
    }
    return false;
}

/** Whether the terminations of one of that slot may still be shown here. */
bool Exchange::isParting(unsigned char slot) const {
    return std::any_of(parting_.begin(), parting_.end(),
                       [slot](auto const& peer) { return peer->unit().slot == slot; });
}

/** A machine that has started its link again takes the place of its former self, once that has
 * ended; of two machines with one slot the first one stays. */
void Exchange::meet(UnitInfo const& unit) {
    if (unit.slot == own_.slot || hasSuccessor(unit))
        return;
    for (auto const& [epoch, peer] : peers()) {
        if (epoch == unit.epoch)
            return;
        if (peer->unit().slot != unit.slot)
            continue;
        if (peer->unit().machine != unit.machine) {
            static Logging::LineLimit limit;
            REFLECTORB_LOG_LIMITED(
                limit, 3, kSource, "slot %u is of machine %s: another one, %s, is passed over",
                unsigned{unit.slot}, peer->unit().machine.c_str(), unit.machine.c_str());
            return;
        }
        part(epoch);
        break;
    }
    if (isParting(unit.slot))
        hasUnmet_ = true;
    else
        makePeer(unit);
}

void Exchange::makePeer(UnitInfo const& unit) {
    auto writer = bus_->writerTo(unit);
    if (writer == nullptr) {
        hasUnmet_ = true;
        return;
    }
    Session::Setup setup;
    setup.ownSlot = own_.slot;
    setup.peerSlot = unit.slot;
    setup.groups = groups_;
    setup.newToken = randomToken;
    auto peer =
        std::make_shared<Peer>(unit, std::move(setup), directory_, std::move(writer), wake_);
    if (!peer->start()) {
        hasUnmet_ = true;
        return;
    }
    {
        OSWrap::Lock<> lock(mutex_);
        peers_[unit.epoch] = peer;
    }
    peer->seen();
}

void Exchange::part(std::uint64_t epoch) {
    parting_.reserve(parting_.size() + 1);
    std::shared_ptr<Peer> gone;
    {
        OSWrap::Lock<> lock(mutex_);
        auto const found = peers_.find(epoch);
        if (found == peers_.end())
            return;
        gone = std::move(found->second);
        peers_.erase(found);
    }
    gone->beginToStop();
    parting_.push_back(std::move(gone));
}

void Exchange::logFigures() {
    for (auto const& [epoch, peer] : peers())
        peer->logFigures();
}

/** For another machine has its slot. Otherwise, without a peer, it is only not linked yet. */
bool Exchange::isPassedOver(UnitInfo const& unit, Peers const& known) const {
    return unit.slot == own_.slot ||
           std::any_of(known.begin(), known.end(), [&unit](auto const& entry) {
               return entry.second->unit().slot == unit.slot;
           });
}

std::vector<PeerStatus> Exchange::status() const {
    Peers const known = peers();
    std::vector<PeerStatus> all;
    for (UnitInfo const& unit : units_) {
        PeerStatus one;
        if (auto const found = known.find(unit.epoch); found != known.end())
            one = found->second->status();
        else if (hasSuccessor(unit))
            continue;
        else
            one.state = isPassedOver(unit, known) ? "passed over" : "away";
        one.slot = unit.slot;
        one.machine = unit.machine;
        all.push_back(std::move(one));
    }
    return all;
}

long long Exchange::oldestDebt() const {
    long long most = 0;
    for (auto const& [epoch, peer] : peers())
        most = std::max(most, peer->oldestDebt());
    for (auto const& peer : parting_)
        most = std::max(most, peer->oldestDebt());
    return most;
}

}  // namespace Link
