// reflectorb watch and veto: what is done with objects, as it happens.
#include <handler_threads.h>

#include <set>

#include "Commands.h"
#include "Members.h"
#include "Staying.h"
#include "Wildcard.h"

namespace {

/** What is to be done at a call, with its arguments or its results; false forbids it. */
using Reaction = std::function<bool(Values const&)>;

/** Observers are objects that the observed object calls: it waits for them. */
class Observer final : public TreflectObserver {
public:
    explicit Observer(Reaction reaction) : reaction_(std::move(reaction)) {}

    bool update() override { return reaction_(arguments()); }

private:
    Reaction const reaction_;
};

/** A member that is observed. */
struct Target {
    Found object;
    std::string member;  // or a pattern
};

/** What is observed at one member. Made under the run permission. */
class Watched {
public:
    Watched(Target const& target, Events& events)
        : object_(handleOn(target.object.place)), name_(target.object.name), events_(events) {}

    /** Tells the value that an attribute has, and each that it gets. */
    bool watchValue(std::string const& name) {
        TreflectAttribute& attribute = attributeOf(object_, name);
        Types const types = attribute.operGet().meta()->resultTypes();
        values_.push_back(std::make_unique<TreflectAttributeWatch>(
            attribute, [this, name, types](TipprmiAny const& value) {
                Shown const shown = show(types, 0, value);
                events_.add({name_ + "/" + name + " = " + shown.text,
                             {{"event", "value"},
                              {"object", name_},
                              {"member", name},
                              {"type", shown.type},
                              {"value", shown.json}}});
            }));
        return !values_.back()->isError();
    }
    /** Tells each call of an operation and its end. */
    bool watchCalls(std::string const& name) {
        TreflectOperation& operation = operationOf(object_, name);
        Types const in = operation.meta()->argumentTypes();
        Types const out = operation.meta()->resultTypes();
        Observer& before = observe([this, name, in](Values const& arguments) {
            events_.add({"call " + name_ + "/" + name + "(" + valuesText(in, arguments) + ")",
                         json("call", name, "arguments", valuesJson(in, arguments)), false});
            return true;
        });
        Observer& after = observe([this, name, out](Values const& results) {
            std::string const text = valuesText(out, results);
            events_.add({"end  " + name_ + "/" + name + (text.empty() ? "" : " -> " + text),
                         json("end", name, "results", valuesJson(out, results))});
            return true;
        });
        return operation.preObserve(&before) && operation.postObserve(&after);
    }
    /** Forbids each call of an operation. */
    bool veto(std::string const& name) {
        TreflectOperation& operation = operationOf(object_, name);
        Types const in = operation.meta()->argumentTypes();
        return operation.preObserve(&observe([this, name, in](Values const& arguments) {
            events_.add({"forbidden " + name_ + "/" + name + "(" + valuesText(in, arguments) + ")",
                         json("vetoed", name, "arguments", valuesJson(in, arguments))});
            return false;
        }));
    }

    TreflectObject const& object() const { return object_; }

private:
    Observer& observe(Reaction reaction) {
        observers_.push_back(std::make_unique<Observer>(std::move(reaction)));
        return *observers_.back();
    }
    Json json(char const* event, std::string const& member, char const* valuesName,
              Json const& values) const {
        return {{"event", event}, {"object", name_}, {"member", member}, {valuesName, values}};
    }

    TreflectObject const object_;
    std::string const name_;
    Events& events_;
    std::vector<std::unique_ptr<TreflectAttributeWatch>> values_;
    std::vector<std::unique_ptr<Observer>> observers_;
};

enum class Purpose { kWatch, kVeto };

bool isAccessor(TreflectMetaObject const& meta, std::string const& name) {
    for (TreflectMetaAttribute const* const attribute : attributesOf(meta)) {
        if (name == "get" + attribute->name() || name == "set" + attribute->name())
            return true;
    }
    return false;
}

/** Which of its members are meant: operations, attributes. Those that read and write attributes
 * only when they are named. */
std::pair<std::vector<std::string>, std::vector<std::string>> membersOf(
    TreflectObject const& object, std::string const& pattern, Purpose purpose) {
    TreflectMetaObject const& meta = classOf(object);
    Wildcard const wildcard(pattern);
    std::vector<std::string> operations;
    std::vector<std::string> attributes;
    for (TreflectMetaOperation const* const operation : operationsOf(meta)) {
        if (operation->name() == pattern ||
            (wildcard.matches(operation->name()) && !isAccessor(meta, operation->name())))
            operations.push_back(operation->name());
    }
    for (TreflectMetaAttribute const* const attribute : attributesOf(meta)) {
        if (!wildcard.matches(attribute->name()))
            continue;
        if (purpose == Purpose::kWatch)
            attributes.push_back(attribute->name());
        else if (attribute->metaOperSet())
            operations.push_back(attribute->metaOperSet()->name());
    }
    return {operations, attributes};
}

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
    WatchSession(Tool& tool, Events& events, std::vector<Target> const& targets, Purpose purpose) {
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
    ExitCode outcome_ = ExitCode::kDone;
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
            return std::make_unique<WatchSession>(tool, events, targets(tool), purpose_);
        });
    }

private:
    std::vector<Target> targets(Tool& tool) const {
        std::vector<Target> targets;
        for (std::string const& text : paths_) {
            MemberPath const path(text);
            for (Found const& found : tool.objects().find(path.object))
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
