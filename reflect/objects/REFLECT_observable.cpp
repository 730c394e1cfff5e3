#include <deque>
#include <vector>

#include "logging/Log.h"
#include "reflect/TreflectObservable.h"
#include "reflect/broker/CallbackScope.h"
#include "reflect/broker/ContainErrors.h"

/** The observers that a notification goes through: shares of their stubs, so that no registration
 * that changes meanwhile, and no search for an observer, gets in between. */
class TreflectObservable::Told {
public:
    Told(Observers const& observers, Key const& key) {
        auto const range = observers.equal_range(key);
        for (auto at = range.first; at != range.second; ++at)
            clients_.emplace_back().share_(at->second);
    }

    std::deque<TreflectObserverClient> const& clients() const { return clients_; }

private:
    std::deque<TreflectObserverClient> clients_;  // none is ever copied, which might search
};

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
    observers->emplace(Key(cc, mc), TreflectObserverClient())->second.share_(client);
}

void TreflectObservable::removeFirst(Observers* observers, TreflectObserverClient const& client) {
    if (!observers)
        return;
    for (auto at = observers->begin(); at != observers->end(); ++at) {
        if (at->second == client) {
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
    bool agreed = true;
    std::vector<TreflectObserverClient const*> unreached;
    for (TreflectObserverClient const& client : told.clients()) {
        bool answer = false;
        if (!tell(client, source, cc, mc, arguments, answer))
            unreached.push_back(&client);
        else if (!answer)
            agreed = false;
    }
    for (TreflectObserverClient const* const client : unreached) {
        if (!life.ended())
            unRegisterObserver(*client);
    }
    return agreed && !life.ended();
}
