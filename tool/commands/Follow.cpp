// reflectorb follow: objects and processes that come and go.
#include <fmt/format.h>
#include <handler_threads.h>
#include <transport.h>

#include <algorithm>
#include <map>

#include "Commands.h"
#include "Following.h"
#include "Staying.h"

namespace {

/** Who is there, as told so far, and what others tell of changes. Kept for ever: others may tell
 * as long as the process lives. All under the run permission. */
class Present {
public:
    explicit Present(Events& events) : events_(events) {}

    void come(Place place, std::string const& className, std::string const& name) {
        if (objects_.emplace(place, Object{name, className}).second)
            tell("+", "created", className, name);
    }
    void go(Place place, std::string const& className) {
        auto const found = objects_.find(place);
        if (found == objects_.end())
            return;
        tell("-", "deleted", className, found->second.name);
        objects_.erase(found);
    }
    bool has(Place place) const { return objects_.count(place) != 0; }
    /** The objects of a broker go with it. */
    void brokerGone(unsigned int broker) {
        for (auto entry = objects_.begin(); entry != objects_.end();) {
            if (entry->first.broker == broker) {
                tell("-", "deleted", entry->second.className, entry->second.name);
                entry = objects_.erase(entry);
            } else {
                ++entry;
            }
        }
    }

private:
    struct Object {
        std::string name;
        std::string className;
    };

    void tell(char const* sign, char const* event, std::string const& className,
              std::string const& name) {
        events_.add({fmt::format("{} {} {}", sign, name, className),
                     {{"event", event}, {"object", name}, {"class", className}}});
    }

    Events& events_;
    std::map<Place, Object> objects_;
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

class FollowSession final : public Session {
public:
    FollowSession(Tool& tool, Events& events)
        : tool_(tool),
          events_(events),
          orb_(*TreflectORB::getInstance(NSID_UNIT)),
          present_(*new Present(events)),
          classes_(*followerOf(orb_, present_)),
          brokers_(*new BrokerFollower) {
        for (Process const& process : tool.processes())
            come(process);
        classes_.followClassesOf(tool.asking(), tool.processes());
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
        classes_.followClassesOf(tool_.asking(), newcomers);
    }
    bool come(Process const& process) {
        bool const isNew =
            std::none_of(process.brokers.begin(), process.brokers.end(),
                         [this](TreflectOrbId broker) { return names_.count(broker) != 0; });
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

    static ClassFollower* followerOf(TreflectORB& orb, Present& present) {
        auto const created = [&present](TreflectObject const& object, std::string const& name) {
            Place const place = placeOf(object);
            if (!present.has(place))
                present.come(place, name, nameOf(object));
        };
        auto const deleted = [&present](TreflectObject const& object, std::string const& name) {
            present.go(placeOf(object), name);
        };
        return new ClassFollower(orb, ClassFollower::Present::kTold, created, deleted);
    }

    Tool& tool_;
    Events& events_;
    TreflectORB& orb_;
    Present& present_;
    ClassFollower& classes_;
    BrokerFollower& brokers_;
    std::map<TreflectOrbId, std::string> names_;  // of the processes of brokers
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
