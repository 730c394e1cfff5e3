// reflectorb watch and veto: what is done with objects, as it happens.
#include <handler_threads.h>

#include <algorithm>
#include <set>

#include "Commands.h"
#include "Lookout.h"
#include "Members.h"
#include "Staying.h"
#include "Watching.h"
#include "Wildcard.h"

namespace {

/** What is to be watched. A value. */
struct Wishes {
    std::vector<MemberPath> paths;
    std::string className;  // a pattern; empty: none
    std::string below;      // likewise

    /** Whether objects may be meant that nobody has named. */
    bool areOpen() const {
        return !className.empty() || !below.empty() ||
               std::any_of(paths.begin(), paths.end(),
                           [](MemberPath const& path) { return Wildcard::isIn(path.object); });
    }
};

/** Whether a pattern tells an object or one that is above it. */
bool isBelow(std::string const& name, std::string const& pattern) {
    Wildcard const wildcard(pattern);
    for (std::size_t end = name.find('/', 1);; end = name.find('/', end + 1)) {
        if (wildcard.matches(name.substr(0, end)))
            return true;
        if (end == std::string::npos)
            return false;
    }
}

/** Observes the members that are wished, and says which objects come and go. */
class Watcher final : public Attendant {
    static constexpr char const* kSilent = "it has not answered that it is observed";

public:
    Watcher(Wishes wishes, Purpose purpose, Events& events)
        : wishes_(std::move(wishes)), purpose_(purpose), events_(events) {}

    Targets find(Tool& tool) override {
        std::vector<Failure> unheard;
        return find(tool, unheard);
    }
    /** `failures`: why a name leads nowhere. */
    Targets find(Tool& tool, std::vector<Failure>& failures) {
        Targets targets;
        for (MemberPath const& path : wishes_.paths) {
            bool const isPattern = Wildcard::isIn(path.object);
            try {
                for (Found const& found : tool.objects().find(path.object))
                    targets.push_back({found, path.member, isPattern});
            } catch (Failure const& why) {
                if (!isPattern || why.outcome() != ExitCode::kNotThere)
                    failures.push_back(why);
            }
        }
        if (!wishes_.className.empty())
            addClass(tool, targets);
        try {
            if (!wishes_.below.empty())
                addBelow(tool, targets);
        } catch (Failure const& why) {
            failures.push_back(why);
        }
        return targets;
    }
    Targets matching(Newcomer const& newcomer) override {
        TreflectObject const object = handleOn(newcomer.place);
        std::string const name = absoluteNameOf(object);
        Found const found{name, newcomer.place};
        Targets targets;
        for (MemberPath const& path : wishes_.paths) {
            bool const isName = path.object[0] == '/';
            Wildcard const wildcard(path.object);
            if (wildcard.matches(isName ? name : newcomer.identifier))
                targets.push_back({isName ? found : Found{newcomer.identifier, found.place},
                                   path.member, Wildcard::isIn(path.object)});
        }
        bool const isOfClass = !wishes_.className.empty() &&
                               Wildcard(wishes_.className).matches(classOf(object).name());
        if (isOfClass || (!wishes_.below.empty() && isBelow(name, below_)))
            targets.push_back({found, "*"});
        return targets;
    }
    bool concerns(std::string const& className) const override {
        if (!wishes_.className.empty() && Wildcard(wishes_.className).matches(className))
            return true;
        if (!wishes_.below.empty() || (wishes_.areOpen() && !wishes_.paths.empty()))
            return true;
        TreflectHandlerState const inside(true);
        return classes_.count(className) != 0;
    }

    Begun begin(Target const& target, Comes when) override {
        auto const watched = std::make_shared<Watched>(target, events_);
        auto const [operations, attributes] = membersOf(watched->object(), target.member, purpose_);
        if (operations.empty() && attributes.empty()) {
            if (target.isOfPattern)
                return {};
            throw Failure(ExitCode::kNotThere, "there is no member \"" + target.member + "\"");
        }
        classes_.insert(classOf(watched->object()).name());
        bool done = true;
        for (std::string const& name : operations)
            done = (purpose_ == Purpose::kVeto ? watched->veto(name) : watched->watchCalls(name)) &&
                   done;
        for (std::string const& name : attributes)
            done = watched->watchValue(name) && done;
        if (!done && when == Comes::kLater)
            throw Failure(ExitCode::kTimedOut, kSilent);  // it is tried again
        if (present_.insert(target.object.place).second && when == Comes::kLater)
            tell("+ ", "came", target);
        if (done)
            return {watched};
        return {watched, ExitCode::kTimedOut, kSilent};
    }
    void gone(Target const& target) override {
        if (present_.erase(target.object.place) != 0)
            tell("- ", "gone", target);
    }

private:
    void tell(char const* sign, char const* event, Target const& target) {
        events_.add(
            {sign + target.object.name, {{"event", event}, {"object", target.object.name}}, false});
    }
    void addClass(Tool& tool, Targets& targets) const {
        Forest const& forest = tool.objects().all();
        for (auto const& entry : forest.nodes()) {
            if (Wildcard(wishes_.className).matches(entry.second.className))
                targets.push_back({{forest.nameOf(entry.first), entry.first}, "*"});
        }
    }
    void addBelow(Tool& tool, Targets& targets) {
        for (Found const& found : tool.objects().find(wishes_.below)) {
            Forest const forest = tool.objects().below(found.place);
            std::string const root = forest.nameOf(found.place);
            for (auto const& entry : forest.nodes())
                targets.push_back(
                    {{found.name + forest.nameOf(entry.first).substr(root.size()), entry.first},
                     "*"});
            noteRoot(tool, found);
        }
    }
    /** Those that come later are told by absolute names. */
    void noteRoot(Tool& tool, Found const& found) {
        bool const isName = wishes_.below[0] == '/';
        std::string const name = isName ? wishes_.below : tool.objects().all().nameOf(found.place);
        TreflectHandlerState const inside(true);
        below_ = name;
    }

    Wishes const wishes_;
    Purpose const purpose_;
    Events& events_;
    // Guarded by the run permission.
    std::string below_;
    std::set<std::string> classes_;  // of what is watched
    std::set<Place> present_;
};

class WatchSession final : public LookoutSession {
public:
    WatchSession(Tool& tool, Events& events, Wishes const& wishes, Purpose purpose)
        : LookoutSession(tool),
          watcher_(*new Watcher(wishes, purpose, events)),
          lookout_(*new Lookout(tool, watcher_)) {
        std::vector<Failure> failures;
        Targets const targets = watcher_.find(tool, failures);
        for (Failure const& why : failures)
            note(why.what(), why.outcome());
        if (wishes.areOpen() && tool.objects().missing().isAnySilent()) {
            tool.objects().missing().tell(tool.output());
            fail(ExitCode::kTimedOut);
        }
        std::size_t begun = 0;
        std::vector<Begun> const all = lookout_.start(targets);
        for (std::size_t i = 0; i < targets.size(); ++i) {
            begun += all[i].attended != nullptr;
            if (all[i].outcome != ExitCode::kDone)
                note(targets[i].object.name + "/" + targets[i].member + ": " + all[i].text,
                     all[i].outcome);
        }
        bool const mayCome =
            targets.empty() && failures.empty() && wishes.areOpen() && lookout_.expectsAny();
        if (begun == 0 && !mayCome)
            throw Failure(outcome_ == ExitCode::kDone ? ExitCode::kNotThere : outcome_,
                          "nothing is observed");
        events.add({"", {{"event", "begun"}, {"objects", begun}}, false});
        tool.output().note(std::string(purpose == Purpose::kVeto ? "forbidding " : "watching ") +
                           std::to_string(begun) + " objects; Ctrl-C ends");
    }

    bool goOn() override {
        for (std::string const& failure : lookout_.tend())
            tool_.output().complain(failure);
        return true;
    }

private:
    Watcher& watcher_;
    Lookout& lookout_;
};

class Watch final : public Command {
public:
    Watch(Purpose purpose, char const* name, char const* help)
        : Command(name, help), purpose_(purpose) {}

    void declare(Options& options) override {
        bool const isVeto = purpose_ == Purpose::kVeto;
        options.words("member", paths_, false,
                      isVeto ? "OBJECT/OPERATION..., or OBJECT/ATTRIBUTE for setting it"
                             : "OBJECT/MEMBER...: values of attributes, calls of operations; "
                               "OBJECT/* for all");
        options.text("--class", "CLASS", class_, "All objects of a class");
        options.text("--below", "OBJECT", below_, "An object and all below it");
        options.number("--count", "N", count_, "End after so many of them");
    }
    ExitCode run(Tool&) override { return ExitCode::kDone; }
    bool stays() const override { return true; }
    ExitCode stay(Settings const& settings, Output& output) override {
        if (paths_.empty() && class_.empty() && below_.empty())
            throw Failure(ExitCode::kWrongUse, "say what: OBJECT/MEMBER, --class or --below");
        Wishes wishes{{}, class_, below_};
        for (std::string const& text : paths_)
            wishes.paths.emplace_back(text);
        return stayInGroup(settings, output, count_, [&](Tool& tool, Events& events) {
            return std::make_unique<WatchSession>(tool, events, wishes, purpose_);
        });
    }

private:
    Purpose const purpose_;
    std::vector<std::string> paths_;
    std::string class_;
    std::string below_;
    unsigned int count_ = 0;
};

}  // namespace

std::unique_ptr<Command> makeWatch() {
    return std::make_unique<Watch>(Purpose::kWatch, "watch",
                                   "Show values and calls of objects as they happen");
}
std::unique_ptr<Command> makeVeto() {
    return std::make_unique<Watch>(Purpose::kVeto, "veto", "Forbid calls, and show them");
}
