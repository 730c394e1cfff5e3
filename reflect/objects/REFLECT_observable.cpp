#include <algorithm>
#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "logging/LineLimit.h"
#include "reflect/TreflectCallOutcome.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectObservable.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/CallbackScope.h"
#include "reflect/broker/ContainErrors.h"
#include "reflect/objects/ServedCall.h"
#include "transport/TransportLayer.h"

namespace {

/** Registrations that are kept of one process, and of those that are registered by others than
 * the process that they are for, of one broker. */
constexpr int kMostOfProcess = 1024;
/** So many of all may be there before those of processes that have gone are looked for. */
constexpr std::size_t kMany = 64;

/** Whether an observer may be reached, as far as is known without asking. */
bool isThere(TreflectObserverClient const& client) {
    TreflectObjectStub const* const stub = client.getStub_();
    return stub && stub->isValid();
}

TreflectOrbId brokerOf(TreflectObserverClient const& client) {
    TreflectObjectStub const* const stub = client.getStub_();
    return stub ? stub->orbId() : TreflectOrbId();
}

/** As isThere; and where it is said to be, there is somebody: a registration tells a broker that
 * nobody has checked. */
bool isPresent(TreflectObserverClient const& client) {
    TreflectObjectStub const* const stub = client.getStub_();
    if (!isThere(client) || stub->getServer())
        return isThere(client);
    TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT);
    return orb && exists(orb->convertId(stub->orbId()));
}

/** Which processes terminations are of; each is asked for once. */
class Processes {
public:
    int of(Transport::TerminationId id) {
        auto const [found, isNew] = known_.try_emplace(id, 0);
        if (isNew)
            found->second = Transport::TransportLayer::instance().ownerOf(id).process;
        return found->second;
    }

private:
    std::map<Transport::TerminationId, int> known_;
};

// Of the calling thread: for whom it registers observers.
thread_local Transport::TerminationId registersFor;

// Of the calling thread: whose guards stay when a registration of their observer is ended.
thread_local TreflectObservable const* guardsStayOf = nullptr;

/** While an observer is dropped that was not reached: it may be a guard elsewhere, and that a guard
 * has gone is no reason to forget it. Touches nothing of the observable, which may be destroyed
 * meanwhile. */
class GuardsStay {
public:
    explicit GuardsStay(TreflectObservable const& observable)
        : outer_(std::exchange(guardsStayOf, &observable)) {}
    ~GuardsStay() { guardsStayOf = outer_; }
    GuardsStay(GuardsStay const&) = delete;
    GuardsStay& operator=(GuardsStay const&) = delete;

private:
    TreflectObservable const* const outer_;
};

}  // namespace

/** The observers that a notification goes through: shares of their stubs, so that no registration
 * that changes meanwhile, and no search for an observer, gets in between. */
class TreflectObservable::Told {
public:
    Told(Observers const& observers, Key const& key) {
        auto const range = observers.equal_range(key);
        for (auto at = range.first; at != range.second; ++at) {
            Registration& registration = registrations_.emplace_back();
            registration.client.share_(at->second.client);
            registration.guards = at->second.guards;
        }
    }

    std::deque<Registration> const& registrations() const { return registrations_; }
    /** Those of them, by their numbers, that are among others, too; none at all: empty. */
    std::vector<bool> among(Observers const& others, Key const& key) const {
        auto const range = others.equal_range(key);
        std::vector<bool> all(range.first == range.second ? 0 : registrations_.size());
        for (std::size_t i = 0; i < all.size(); ++i)
            all[i] = std::any_of(range.first, range.second, [&](auto const& other) {
                return other.second.client == registrations_[i].client;
            });
        return all;
    }

private:
    std::deque<Registration> registrations_;  // none is ever copied, which might search
};

TreflectObservable::OnBehalf::OnBehalf(Transport::TerminationId sender)
    : outer_(std::exchange(registersFor, sender)) {}

TreflectObservable::OnBehalf::~OnBehalf() {
    registersFor = outer_;
}

TreflectObservable::TreflectObservable() = default;

TreflectObservable::~TreflectObservable() {
    endLife();
}

void TreflectObservable::endLife() {
    *living_ = false;
}

void TreflectObservable::registerObserver(unsigned int kind, unsigned int const& cc,
                                          unsigned int const& mc,
                                          TreflectObserverClient const& client) {
    handlerthreads::trustPermission();
    std::unique_ptr<Observers>& observers = kind == kBeforeCalls ? preObservers_ : postObservers_;
    if (!observers)
        observers = std::make_unique<Observers>();
    Registration& made = observers->emplace(Key(cc, mc), Registration())->second;
    made.client.share_(client);
    made.sender = registersFor;
}

void TreflectObservable::registerGuard(unsigned int cc, unsigned int mc,
                                       TreflectObserverClient const& client) {
    handlerthreads::trustPermission();
    if (!preObservers_)
        preObservers_ = std::make_unique<Observers>();
    Key const key(cc, mc);
    auto at = preObservers_->lower_bound(key);
    while (at != preObservers_->end() && at->first == key)
        at = at->second.guards && at->second.client == client ? preObservers_->erase(at)
                                                              : std::next(at);
    Registration& guard = preObservers_->emplace(key, Registration())->second;
    guard.client.share_(client);
    guard.guards = true;
    guard.sender = registersFor;
}

unsigned int TreflectObservable::removeLostGuards(unsigned int cc, unsigned int mc) {
    handlerthreads::trustPermission();
    unsigned int count = 0;
    if (!preObservers_)
        return count;
    Key const key(cc, mc);
    auto at = preObservers_->lower_bound(key);
    while (at != preObservers_->end() && at->first == key) {
        Registration const& guard = at->second;
        bool const isLost = guard.guards && (guard.lost || !isThere(guard.client));
        count += isLost ? 1 : 0;
        at = isLost ? preObservers_->erase(at) : std::next(at);
    }
    return count;
}

std::size_t TreflectObservable::count() const {
    handlerthreads::trustPermission();
    return (preObservers_ ? preObservers_->size() : 0) +
           (postObservers_ ? postObservers_->size() : 0);
}

void TreflectObservable::forgetThoseGone() {
    handlerthreads::trustPermission();
    for (Observers* const observers : {preObservers_.get(), postObservers_.get()}) {
        if (!observers)
            continue;
        for (auto at = observers->begin(); at != observers->end();) {
            bool const stays = at->second.guards || isPresent(at->second.client);
            at = stays ? std::next(at) : observers->erase(at);
        }
    }
}

bool TreflectObservable::hasGuard(unsigned int cc, unsigned int mc,
                                  TreflectObserverClient const& client) const {
    handlerthreads::trustPermission();
    if (!preObservers_)
        return false;
    auto const range = preObservers_->equal_range({cc, mc});
    return std::any_of(range.first, range.second, [&](auto const& entry) {
        return entry.second.guards && entry.second.client == client;
    });
}

bool TreflectObservable::makeRoomFor(TreflectObserverClient const& client) {
    handlerthreads::trustPermission();
    if (count() >= manyObservers_) {
        forgetThoseGone();
        manyObservers_ = std::max(kMany, 2 * count());
    }
    TreflectOrbId const broker = brokerOf(client);
    if (count() < std::size_t{kMostOfProcess} || !hasTooMany(broker))
        return true;
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, "REFLECT_observable",
                           "an observer of ORB 0x%X is refused: it has %d at the object already",
                           broker.value(), kMostOfProcess);
    return false;
}

/** Of the process that registers now; and for a broker of another one, of those that were
 * registered for that by others: so nobody takes the place of what a process registers for itself.
 */
bool TreflectObservable::hasTooMany(TreflectOrbId const& broker) const {
    handlerthreads::trustPermission();
    TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT);
    if (!orb)
        return false;
    Processes processes;
    auto const processOf = [&](Transport::TerminationId sender) {
        return processes.of(sender.value() == 0 ? orb->termId() : sender);  // 0: this process
    };
    auto const isForOthers = [&](Transport::TerminationId sender, TreflectOrbId const& named) {
        return processOf(sender) != processOf(orb->convertId(named));
    };
    bool const forOthers = isForOthers(registersFor, broker);
    int bySender = 0;
    int byOthers = 0;
    for (Observers const* const observers : {preObservers_.get(), postObservers_.get()}) {
        if (!observers)
            continue;
        for (auto const& [key, each] : *observers) {
            TreflectOrbId const named = brokerOf(each.client);
            bySender += processOf(each.sender) == processOf(registersFor) ? 1 : 0;
            byOthers += forOthers && named == broker && isForOthers(each.sender, named) ? 1 : 0;
        }
    }
    return bySender >= kMostOfProcess || byOthers >= kMostOfProcess;
}

void TreflectObservable::removeFirst(Observers* observers, TreflectObserverClient const& client) {
    if (!observers)
        return;
    bool const guardsStay = guardsStayOf == this;
    for (auto at = observers->begin(); at != observers->end(); ++at) {
        if (at->second.client == client && !(guardsStay && at->second.guards)) {
            observers->erase(at);
            return;
        }
    }
}

void TreflectObservable::unRegisterObserver(TreflectObserverClient const& client) {
    handlerthreads::trustPermission();
    removeFirst(preObservers_.get(), client);
    removeFirst(postObservers_.get(), client);
}

std::vector<TreflectObservation> TreflectObservable::observations_() const {
    handlerthreads::trustPermission();
    std::vector<TreflectObservation> all;
    for (unsigned int const kind : {kBeforeCalls, kAfterCalls}) {
        Observers const* const observers =
            (kind == kBeforeCalls ? preObservers_ : postObservers_).get();
        if (!observers)
            continue;
        for (auto const& [key, registration] : *observers)
            all.push_back({kind, key.first, key.second, &registration.client});
    }
    return all;
}

// What an observer of this process throws ends here, as that of another process ends there: the
// others are to be told as well, and the call is not theirs to break.
bool TreflectObservable::tell(TreflectObserverClient const& client, TreflectObject const& source,
                              unsigned int cc, unsigned int mc,
                              TipprmiSequence<TipprmiAny, 0u> const& arguments, bool& answer) {
    CallbackScope const restored;
    bool alive = false;
    bool const told = containErrors(
        [&] { answer = client.notify(source, cc, mc, arguments, alive); },
        [&](char const* thrown) {
            REFLECTORB_LOG(3, "REFLECT_observable",
                           "observer told of classCode=0x%X,methodCode=%u threw%s", cc, mc, thrown);
        });
    return told && alive;
}

// One whose process is known to have gone is not called again and again.
bool TreflectObservable::askGuard(TreflectObserverClient const& client,
                                  TreflectObject const& source, Key const& key,
                                  TipprmiSequence<TipprmiAny, 0u> const& arguments) {
    Life const life(*this);
    bool answer = false;
    bool const reached =
        isThere(client) && tell(client, source, key.first, key.second, arguments, answer);
    if (!life.ended())
        noteGuard(client, key, !reached);
    if (!reached) {
        static Logging::LineLimit limit;
        REFLECTORB_LOG_LIMITED(limit, 3, "REFLECT_observable",
                               "classCode=0x%X,methodCode=%u is forbidden: its guard does not "
                               "answer",
                               key.first, key.second);
    }
    return reached && answer;
}

void TreflectObservable::noteGuard(TreflectObserverClient const& client, Key const& key,
                                   bool lost) {
    handlerthreads::trustPermission();
    if (!preObservers_)
        return;
    auto const range = preObservers_->equal_range(key);
    for (auto at = range.first; at != range.second; ++at) {
        if (at->second.guards && at->second.client.getStub_() == client.getStub_())
            at->second.lost = lost;
    }
}

bool TreflectObservable::notifyObservers(TreflectObject const& source, unsigned int kind,
                                         unsigned int const& cc, unsigned int const& mc,
                                         TipprmiSequence<TipprmiAny, 0u> const& arguments) {
    handlerthreads::trustPermission();
    Observers const* const observers =
        (kind == kBeforeCalls ? preObservers_ : postObservers_).get();
    if (!observers)
        return true;
    Life const life(*this);
    Told const told(*observers, {cc, mc});
    // With its number for those who want to know what comes of the call, while there is memory.
    std::vector<bool> wantNumber;
    TipprmiSequence<TipprmiAny, 0u> numbered;
    ServedCall const* const call = kind == kBeforeCalls ? ServedCall::of(*this) : nullptr;
    Observers const* const after = postObservers_.get();
    if (call && call->isOf(cc, mc) && after) {
        auto const number = [&] {
            wantNumber = told.among(*after, {cc, mc ^ TreflectCallOutcome::kMark});
            if (!wantNumber.empty())
                numbered = call->numbered(arguments);
        };
        if (!containErrors(number, [](char const*) {}))
            wantNumber.clear();
    }
    bool agreed = true;
    std::vector<TreflectObserverClient const*> unreached;
    for (std::size_t i = 0; i < told.registrations().size(); ++i) {
        Registration const& one = told.registrations()[i];
        bool const wants = i < wantNumber.size() && wantNumber[i];
        bool answer = false;
        if (one.guards)
            agreed = !life.ended() && askGuard(one.client, source, {cc, mc}, arguments) && agreed;
        else if (!tell(one.client, source, cc, mc, wants ? numbered : arguments, answer))
            unreached.push_back(&one.client);
        else if (!answer)
            agreed = false;
    }
    for (TreflectObserverClient const* const client : unreached) {
        if (life.ended())
            break;
        GuardsStay const guardsStay(*this);
        unRegisterObserver(*client);
    }
    return agreed && !life.ended();
}
