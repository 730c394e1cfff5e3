// Observers: of creations and deletions, of calls, of brokers.
#pragma once

#include <chrono>
#include <memory>
#include <thread>

#include "Actor.h"

namespace soak {

/** Observes one kind of event of one class, and writes down all that it is told. Its functions, and
 * its making and end, need the run permission. */
class Watcher final : public TreflectObserver {
public:
    /** How it behaves when told. */
    enum class Habit { plain, asksBack, leavesAtOnce };

    Watcher(Actor& actor, unsigned int classIndex, Kind kind, bool plusExisting, Habit habit)
        : TreflectObserver(named(""), nullptr, "watcher"),
          actor_(actor),
          classIndex_(classIndex),
          habit_(habit),
          id_(actor.settings.name() + "." + std::to_string(++actor.registrations)) {
        ++busy_;
        TreflectMetaObject& meta = metaOf(classIndex_);
        // The permission is kept until the registration has begun.
        actor_.journal.write("observe", id_, classIndex_, text(kind), plusExisting);
        if (kind == Kind::creations)
            meta.observeCreations(this, plusExisting);
        else
            meta.observeDeletions(this);
        // One that was removed meanwhile, by itself, never was an observer after this.
        actor_.journal.write("observing", id_);
        --busy_;
    }

    /** Ends the registration; no effect when it has been ended. */
    void unobserve() {
        if (removed_)
            return;
        removed_ = true;
        ++busy_;
        actor_.journal.write("unobserve", id_);
        metaOf(classIndex_).removeObserver(this);
        actor_.journal.write("unobserved", id_);
        --busy_;
    }
    /** Whether it may be destroyed: removed, and in no thread's hands. */
    bool isOver() const { return removed_ && busy_ == 0; }

    bool update() override {
        ++busy_;
        TreflectObject const& source = *getSource();
        std::string const name = nameOf(source);
        actor_.journal.write("told", id_, name);
        actor_.known.offer(source, name);
        if (habit_ == Habit::leavesAtOnce)
            unobserve();
        if (habit_ == Habit::asksBack) {
            Client handle;
            handle.share_(source);
            actor_.record(name, "asked-by-observer", name, [&] { return handle.getName(); });
        }
        --busy_;
        return true;
    }

private:
    Actor& actor_;
    unsigned int const classIndex_;
    Habit const habit_;
    std::string const id_;
    bool removed_ = false;
    unsigned int busy_ = 0;  // threads inside, which may give up the permission
};

using Watchers = std::vector<std::unique_ptr<Watcher>>;

/** Ends registrations, and destroys the watchers when no thread is in them any more. Without the
 * permission. */
inline void retire(Watchers& watchers) {
    while (!watchers.empty()) {
        {
            TreflectHandlerState const inside(true);
            watchers.back()->unobserve();
            if (watchers.back()->isOver()) {
                watchers.pop_back();
                continue;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

/** Forbids calls with an odd argument. */
class Guard final : public TreflectObserver {
public:
    Guard() : TreflectObserver(named(""), nullptr, "guard") {}
    bool update() override {
        unsigned int level = 0;
        argument(0, level);
        return level % 2 == 0;
    }
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

}  // namespace soak
