// Observers: of creations and deletions, of calls, of brokers.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Actor.h"

namespace soak {

/** Observes one kind of event of one class, and writes down all that it is told. Its functions, and
 * its making and end, need the run permission. */
class Watcher final : public TreflectObserver {
public:
    /** How it behaves when told. */
    enum class Habit { plain, asksBack, leavesAtOnce };

    Watcher(Actor& actor, unsigned int classIndex, Kind kind, bool plusExisting, Habit habit);

    void observe();
    /** Ends the registration; no effect when it has been ended. */
    void unobserve();
    /** Whether it may be destroyed: removed, and in no thread's hands. */
    bool isOver() const { return removed_ && busy_ == 0; }

    bool update() override;

private:
    class Busy;

    Actor& actor_;
    unsigned int const classIndex_;
    Kind const kind_;
    bool const plusExisting_;
    Habit const habit_;
    std::string const id_;
    bool removed_ = false;
    unsigned int busy_ = 0;  // threads inside, which may give up the permission
};

/** Ends registrations, and destroys the watchers when no thread is in them any more. Without the
 * permission. */
void retire(std::vector<std::unique_ptr<Watcher>>& watchers);

/** Forbids calls with an odd argument. */
class Guard final : public TreflectObserver {
public:
    Guard() : TreflectObserver(named(""), nullptr, "guard") {}
    bool update() override;
};

/** Writes down which brokers have been caught up with. */
class BrokerWatcher final : public TreflectOrbObserverIf {
public:
    explicit BrokerWatcher(Journal& journal) : journal_(journal) {}
    void notify(Transport::TerminationId const& broker, Appear_t const& what) override {
        journal_.write(what == kAppear ? "met" : "lost", broker.value());
    }

private:
    Journal& journal_;
};

/** Writes down a call that has ended, and whether its answer was `expected`. */
template <class T>
bool record(Actor& actor, long long begin, std::string const& target, char const* what,
            TipprmiResult<T> const& result, T const& expected) {
    std::string verdict = "ok";
    if (!result)
        verdict = result.code() == TipprmiFailure::kVetoed ? "vetoed" : "failed";
    else if (result.value() != expected)
        verdict = "wrong";
    if (verdict == "wrong") {
        if constexpr (std::is_same_v<T, std::string>)
            verdict += ":" + result.value();
        else
            verdict += ":" + std::to_string(result.value());
    }
    actor.journal.write("call", begin, target, verdict, what);
    return verdict == "ok";
}

}  // namespace soak
