#include "Watcher.h"

#include <chrono>
#include <thread>

namespace soak {

class Watcher::Busy {
public:
    explicit Busy(Watcher& watcher) : watcher_(watcher) { ++watcher_.busy_; }
    ~Busy() { --watcher_.busy_; }
    Busy(Busy const&) = delete;
    Busy& operator=(Busy const&) = delete;

private:
    Watcher& watcher_;
};

Watcher::Watcher(Actor& actor, unsigned int classIndex, Kind kind, bool plusExisting, Habit habit)
    : TreflectObserver(named(""), nullptr, "watcher"),
      actor_(actor),
      classIndex_(classIndex),
      kind_(kind),
      plusExisting_(plusExisting),
      habit_(habit),
      id_(actor.nextRegistration()) {}

void Watcher::observe() {
    Busy const busy(*this);
    actor_.journal.write("observe", id_, classIndex_, text(kind_), plusExisting_ ? 1 : 0);
    if (kind_ == Kind::creations)
        metaOf(classIndex_).observeCreations(this, plusExisting_);
    else
        metaOf(classIndex_).observeDeletions(this);
    // One that was removed meanwhile, by itself, never was an observer after this.
    actor_.journal.write("observing", id_);
}

void Watcher::unobserve() {
    if (removed_)
        return;
    removed_ = true;
    Busy const busy(*this);
    actor_.journal.write("unobserve", id_);
    metaOf(classIndex_).removeObserver(this);
    actor_.journal.write("unobserved", id_);
}

bool Watcher::update() {
    Busy const busy(*this);
    TreflectObject const& source = *getSource();
    std::string const name = nameOf(source);
    actor_.journal.write("told", id_, name);
    actor_.known.offer(source, name);
    if (habit_ == Habit::leavesAtOnce)
        unobserve();
    if (habit_ == Habit::asksBack) {
        Client handle;
        handle.share_(source);
        long long const begin = now();
        record(actor_, begin, name, "asked-by-observer", handle.getName(), name);
    }
    return true;
}

void retire(std::vector<std::unique_ptr<Watcher>>& watchers) {
    {
        TreflectHandlerState const inside(true);
        for (auto const& watcher : watchers)
            watcher->unobserve();
    }
    while (!watchers.empty()) {
        {
            TreflectHandlerState const inside(true);
            if (watchers.back()->isOver()) {
                watchers.pop_back();
                continue;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

bool Guard::update() {
    unsigned int level = 0;
    argument(0, level);
    return level % 2 == 0;
}

}  // namespace soak
