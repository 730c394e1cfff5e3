// reflectorb follow: objects and processes that come and go.
#include <fmt/format.h>
#include <handler_threads.h>
#include <transport.h>

#include <deque>
#include <map>
#include <set>
#include <thread>

#include "Commands.h"
#include "Staying.h"

namespace {

/** Who is there, as told so far, and what others tell of changes. Kept for ever: others may tell
 * as long as the process lives. All under the run permission. */
class Present {
public:
    explicit Present(Events& events) : events_(events) {}

    void come(Place place, std::string const& className, std::string const& name) {
        if (objects_.emplace(place, name).second)
            tell("+", "created", className, name);
    }
    void go(Place place, std::string const& className) {
        auto const found = objects_.find(place);
        if (found == objects_.end())
            return;
        tell("-", "deleted", className, found->second);
        objects_.erase(found);
    }
    bool has(Place place) const { return objects_.count(place) != 0; }
    /** The objects of a broker go with it. */
    void brokerGone(unsigned int broker) {
        for (auto entry = objects_.begin(); entry != objects_.end();) {
            if (entry->first.broker == broker) {
                tell("-", "deleted", "", entry->second);
                entry = objects_.erase(entry);
            } else {
                ++entry;
            }
        }
    }

private:
    void tell(char const* sign, char const* event, std::string const& className,
              std::string const& name) {
        events_.add({fmt::format("{} {} {}", sign, name, className),
                     {{"event", event}, {"object", name}, {"class", className}}});
    }

    Events& events_;
    std::map<Place, std::string> objects_;  // their names
};

/** The name of an object, asked for from object to object: an object that asks its parent itself
 * would have to wait for it. An object in the making answers while it waits for us. */
std::string nameOf(TreflectObject const& object) {
    constexpr std::chrono::milliseconds kPatience(500);
    constexpr int kDeepest = 100;
    TreflectDeadline const within(kPatience);
    std::string name;
    TreflectObject at(object);
    for (int depth = 0; depth < kDeepest && at.isConnected(); ++depth) {
        name = "/" + at.getRelName() + name;
        at = at.getParent();
    }
    return name;
}

/** Hears of the objects of one class that are created, or deleted. */
class ObjectFollower final : public TreflectObserver {
public:
    ObjectFollower(Present& present, std::string className, bool ofCreations)
        : present_(present), className_(std::move(className)), ofCreations_(ofCreations) {}

    /** Waits for all processes of the group, for those that hang up to a minute. */
    void begin(TreflectORB& orb, unsigned int classId) {
        if (ofCreations_)
            orb.observeCreations(classId, *this, true);
        else
            orb.observeDeletions(classId, *this);
    }

    bool update() override {
        Place const place = placeOf(*getSource());
        if (!ofCreations_)
            present_.go(place, className_);
        else if (!present_.has(place))
            present_.come(place, className_, nameOf(*getSource()));
        return true;
    }

private:
    Present& present_;
    std::string const className_;
    bool const ofCreations_;
};

/** Hears of brokers, and leaves them to the main thread. */
class BrokerFollower final : public TreflectOrbObserverIf {
public:
    void notify(Transport::TerminationId const& broker, Appear_t const& what) override {
        changes_.push_back({broker, what == kAppear});
    }
    struct Change {
        Transport::TerminationId broker;
        bool isThere;
    };
    std::deque<Change> take() { return std::exchange(changes_, {}); }

private:
    std::deque<Change> changes_;  // guarded by the run permission
};

class FollowSession final : public Session {
public:
    FollowSession(Tool& tool, Events& events)
        : tool_(tool),
          events_(events),
          orb_(*TreflectORB::getInstance(NSID_UNIT)),
          present_(*new Present(events)),
          brokers_(*new BrokerFollower) {
        for (Process const& process : tool.processes())
            come(process);
        followClasses(tool.processes());
        orb_.registerOrbCreation(&brokers_, true);
        orb_.registerOrbDeletion(&brokers_);
    }

    bool goOn() override {
        for (BrokerFollower::Change const& change : takeChanges()) {
            if (change.isThere)
                arrived();
            else
                departed(orb_.convertId(change.broker));
        }
        return true;
    }

private:
    std::deque<BrokerFollower::Change> takeChanges() {
        TreflectHandlerState const inside(true);
        return brokers_.take();
    }

    /** Who is there now and was not before. */
    void arrived() {
        Processes newcomers;
        for (Process const& process : presentProcesses(tool_.asking())) {
            if (come(process))
                newcomers.push_back(process);
        }
        followClasses(newcomers);
    }
    bool come(Process const& process) {
        bool const isNew = std::none_of(names_.begin(), names_.end(), [&](auto const& known) {
            return known.second == process.name();
        });
        for (TreflectOrbId const broker : process.brokers)
            names_.emplace(broker, process.name());
        if (isNew)
            tell("+", "arrived", process.name());
        return isNew;
    }
    void departed(TreflectOrbId broker) {
        auto const found = names_.find(broker);
        if (found == names_.end())
            return;
        std::string const name = found->second;
        names_.erase(found);
        {
            TreflectHandlerState const inside(true);
            present_.brokerGone(broker.value());
        }
        for (auto const& other : names_) {
            if (other.second == name)
                return;  // another broker of the process is there still
        }
        tell("-", "departed", name);
    }
    void tell(char const* sign, char const* event, std::string const& name) {
        events_.add(
            {fmt::format("{} process {}", sign, name), {{"event", event}, {"process", name}}});
    }

    /** Each class on a thread of its own, since a process that hangs holds up the registration. */
    void followClasses(Processes const& processes) {
        using Known = std::vector<processobject::KnownClass>;
        for (Answer<Known> const& answer : askProcessObjects<Known>(
                 tool_.asking(), processes,
                 [](TreflectProcessClient const& client) { return valueOf(client.classes()); })) {
            for (processobject::KnownClass const& known : answer.value) {
                if (!classes_.insert(known.id).second)
                    continue;
                std::thread([&orb = orb_, &present = present_, known] {
                    TreflectHandlerState const inside(true);
                    for (bool const ofCreations : {false, true})
                        (new ObjectFollower(present, known.name, ofCreations))
                            ->begin(orb, known.id);
                }).detach();
            }
        }
    }

    Tool& tool_;
    Events& events_;
    TreflectORB& orb_;
    Present& present_;
    BrokerFollower& brokers_;
    std::map<TreflectOrbId, std::string> names_;  // of the processes of brokers
    std::set<unsigned int> classes_;              // that are followed
};

class Follow final : public Command {
public:
    Follow() : Command("follow", "Show objects and processes that come and go") {}

    void declare(Options& options) override {
        options.number("--count", "N", count_, "End after so many lines");
    }
    ExitCode run(Tool&) override { return ExitCode::kDone; }
    bool stays() const override { return true; }
    ExitCode stay(Settings const& settings, Output& output) override {
        return stayInGroup(settings, output, count_, [](Tool& tool, Events& events) {
            return std::make_unique<FollowSession>(tool, events);
        });
    }

private:
    unsigned int count_ = 0;
};

}  // namespace

std::unique_ptr<Command> makeFollow() {
    return std::make_unique<Follow>();
}
