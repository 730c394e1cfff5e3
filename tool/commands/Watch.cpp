// reflectorb watch and veto: what is done with objects, as it happens.
#include <handler_threads.h>

#include <set>

#include "Commands.h"
#include "Members.h"
#include "Staying.h"
#include "Watching.h"
#include "Wildcard.h"

namespace {

using WatchedObjects = std::vector<std::shared_ptr<Watched>>;

/** What has come of observing an object. */
struct Begun {
    std::shared_ptr<Watched> watched;
    ExitCode outcome = ExitCode::kDone;
    std::string text;
};

Begun observe(Target const& target, Purpose purpose, Events& events) {
    Begun begun;
    try {
        auto const watched = std::make_shared<Watched>(target, events);
        auto const [operations, attributes] = membersOf(watched->object(), target.member, purpose);
        if (operations.empty() && attributes.empty())
            throw Failure(ExitCode::kNotThere, "there is no member \"" + target.member + "\"");
        begun.watched = watched;
        bool done = true;
        for (std::string const& name : operations)
            done = (purpose == Purpose::kVeto ? watched->veto(name) : watched->watchCalls(name)) &&
                   done;
        for (std::string const& name : attributes)
            done = watched->watchValue(name) && done;
        if (!done)
            throw Failure(ExitCode::kTimedOut, "it has not answered that it is observed");
    } catch (Failure const& why) {
        begun.outcome = why.outcome();
        begun.text = why.what();
    }
    return begun;
}

class WatchSession final : public Session {
public:
    /** `outcome`: what has come of finding them. */
    WatchSession(Tool& tool, Events& events, std::vector<Target> const& targets, Purpose purpose,
                 ExitCode outcome)
        : outcome_(outcome) {
        std::vector<TreflectOrbId> brokers;
        for (Target const& target : targets)
            brokers.emplace_back(target.object.place.broker);
        auto const answers =
            tool.asking().each<Begun>(brokers, [targets, purpose, &events](std::size_t number) {
                return std::optional(observe(targets[number], purpose, events));
            });
        for (std::size_t i = 0; i < targets.size(); ++i)
            note(tool, targets[i], answers[i]);
        if (watched_.empty())
            throw Failure(outcome_, "nothing is observed");
        events.add({"", {{"event", "begun"}, {"objects", watched_.size()}}, false});
        tool.output().note(std::string(purpose == Purpose::kVeto ? "forbidding " : "watching ") +
                           std::to_string(watched_.size()) + " objects; Ctrl-C ends");
    }

    /** Until all objects have gone. */
    bool goOn() override {
        TreflectHandlerState const inside(true);
        for (auto const& watched : watched_) {
            if (watched->object().isConnected())
                return true;
        }
        outcome_ = ExitCode::kNotThere;
        return false;
    }
    ExitCode outcome() const override { return outcome_; }

private:
    void note(Tool& tool, Target const& target, Answer<Begun> const& answer) {
        ExitCode const outcome = answer ? answer.value.outcome : ExitCode::kTimedOut;
        if (answer.value.watched)
            watched_.push_back(answer.value.watched);
        if (outcome == ExitCode::kDone)
            return;
        tool.output().complain(target.object.name + "/" + target.member + ": " +
                               (answer ? answer.value.text : "no answer in time"));
        if (outcome_ == ExitCode::kDone)
            outcome_ = outcome;
    }

    WatchedObjects watched_;
    ExitCode outcome_;
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
        return stayInGroup(settings, output, count_, [this](Tool& tool, Events& events) {
            ExitCode outcome = ExitCode::kDone;
            std::vector<Target> const found = targets(tool, outcome);
            return std::make_unique<WatchSession>(tool, events, found, purpose_, outcome);
        });
    }

private:
    std::vector<Target> targets(Tool& tool, ExitCode& outcome) const {
        std::vector<Target> targets;
        for (std::string const& text : paths_) {
            MemberPath const path(text);
            for (Found const& found :
                 tool.objects().findOrComplain(path.object, tool.output(), outcome))
                targets.push_back({found, path.member});
        }
        if (!class_.empty())
            addClass(tool, targets);
        if (!below_.empty())
            addBelow(tool, targets);
        return targets;
    }
    void addClass(Tool& tool, std::vector<Target>& targets) const {
        Forest const& forest = tool.objects().all();
        for (auto const& entry : forest.nodes()) {
            if (Wildcard(class_).matches(entry.second.className))
                targets.push_back({{forest.nameOf(entry.first), entry.first}, "*"});
        }
        if (targets.empty())
            throw Failure(ExitCode::kNotThere, "there are no objects of the class " + class_);
    }
    void addBelow(Tool& tool, std::vector<Target>& targets) const {
        for (Found const& found : tool.objects().find(below_)) {
            Forest const forest = tool.objects().below(found.place);
            std::string const root = forest.nameOf(found.place);
            for (auto const& entry : forest.nodes())
                targets.push_back(
                    {{found.name + forest.nameOf(entry.first).substr(root.size()), entry.first},
                     "*"});
        }
    }

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
