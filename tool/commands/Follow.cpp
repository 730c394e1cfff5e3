// reflectorb follow: objects and processes that come and go.
#include <fmt/format.h>
#include <handler_threads.h>
#include <transport.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <utility>

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
    std::set<Place> places() const {
        std::set<Place> all;
        for (auto const& object : objects_)
            all.insert(object.first);
        return all;
    }
    /** Those of a kind go. */
    void goThose(std::function<bool(Place)> const& areGone) {
        std::vector<std::pair<Place, std::string>> gone;
        for (auto const& object : objects_) {
            if (areGone(object.first))
                gone.emplace_back(object.first, object.second.className);
        }
        for (auto const& one : gone)
            go(one.first, one.second);
    }
    /** The objects of a broker go with it. */
    void brokerGone(unsigned int broker) {
        goThose([broker](Place place) { return place.broker == broker; });
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
        lookIfDeaf();
        return true;
    }

private:
    std::deque<BrokerFollower::Change> takeChanges() {
        TreflectHandlerState const inside(true);
        return brokers_.take();
    }

    /** Of objects nobody is told as long as a process hangs at which this one registers: then they
     * are looked for. */
    void lookIfDeaf() {
        constexpr std::chrono::seconds kPace(2);
        bool const isDeaf = !classes_.awaitRegistrations({});
        bool const isDue = std::chrono::steady_clock::now() >= lookAt_;
        if (isDeaf ? !isDue : !hasLooked_)
            return;
        look();
        hasLooked_ = isDeaf;  // once more when it hears again, for what has happened since
        lookAt_ = std::chrono::steady_clock::now() + kPace;
    }
    void look() {
        std::set<Place> const before = places();
        tool_.lookAgain();
        Forest const& forest = tool_.objects().all();
        TreflectHandlerState const inside(true);
        for (auto const& [place, node] : forest.nodes()) {
            bool const isTold = node.isReflective && !node.className.empty() &&
                                node.classId != processobject::kClass &&
                                node.classId != TreflectObserverSkeleton::kClassId;
            if (isTold)
                present_.come(place, node.className, forest.nameOf(place));
        }
        present_.goThose([&](Place place) {
            Process const* const owner = ownerOf(tool_.processes(), place.broker);
            return before.count(place) != 0 && owner &&
                   !tool_.asking().isGivenUp(owner->broker()) && !forest.find(place);
        });
    }
    std::set<Place> places() const {
        TreflectHandlerState const inside(true);
        return present_.places();
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
                present.come(place, name, absoluteNameOf(object));
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
    bool hasLooked_ = false;                      // while it was deaf
    std::chrono::steady_clock::time_point lookAt_ =
        std::chrono::steady_clock::now() + std::chrono::seconds(1);
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
