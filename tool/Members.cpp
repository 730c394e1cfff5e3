#include "Members.h"

#include <oswrap.h>

#include <set>

#include "CallObserver.h"
#include "Units.h"
#include "Wildcard.h"

MemberPath::MemberPath(std::string const& text) {
    std::size_t const end = text.rfind('/');
    if (end == std::string::npos || end == 0 || end + 1 == text.size())
        throw Failure(ExitCode::kWrongUse, "\"" + text + "\" is not OBJECT/MEMBER");
    object = text.substr(0, end);
    member = text.substr(end + 1);
}

Json errorJson(ExitCode outcome, std::string const& text) {
    return {{"code", static_cast<int>(outcome)}, {"name", nameOf(outcome)}, {"text", text}};
}

Json Done::json() const {
    Json told = {{"object", object}, {"member", member}};
    if (outcome != ExitCode::kDone) {
        told["error"] = errorJson(outcome, text);
    } else if (value) {
        told["type"] = value->type;
        told["value"] = value->json;
        value->addUnit(told);
    }
    return told;
}

namespace {

/** Those of special classes hide those of bases. */
template <class Member>
std::vector<Member*> eachOnce(std::list<Member*> const& members) {
    std::set<std::string> names;
    std::vector<Member*> once;
    for (Member* const member : members) {
        if (names.insert(member->name()).second)
            once.push_back(member);
    }
    return once;
}

}  // namespace

std::vector<TreflectMetaAttribute*> attributesOf(TreflectMetaObject const& meta) {
    std::list<TreflectMetaAttribute*> attributes;
    meta.attributeList(attributes);
    return eachOnce(attributes);
}

std::vector<TreflectMetaOperation*> operationsOf(TreflectMetaObject const& meta) {
    std::list<TreflectMetaOperation*> operations;
    meta.operationList(operations);
    return eachOnce(operations);
}

TreflectMetaObject const& classOf(TreflectObject const& object) {
    TreflectMetaObject const* const meta = object.meta();
    if (meta)
        return *meta;
    if (TreflectDeadline::endOfThread() <= OSWrap::Clock::nowNanoseconds())
        throw Failure(ExitCode::kTimedOut, "no answer in time");
    if (!object.isConnected())
        throw Failure(ExitCode::kNotThere, "it has gone");
    throw Failure(ExitCode::kNotThere, std::string("its class is unknown here: ") + kHowToEnable);
}

TreflectAttribute& attributeOf(TreflectObject const& object, std::string const& name) {
    for (TreflectMetaAttribute* const attribute : attributesOf(classOf(object))) {
        if (attribute->name() == name)
            return *attribute->getTied(&object);
    }
    throw Failure(ExitCode::kNotThere, "there is no attribute \"" + name + "\"");
}

TreflectOperation& operationOf(TreflectObject const& object, std::string const& name) {
    for (TreflectMetaOperation* const operation : operationsOf(classOf(object))) {
        if (operation->name() == name)
            return *operation->getTied(&object);
    }
    throw Failure(ExitCode::kNotThere, "there is no operation \"" + name + "\"");
}

Values callOperation(TreflectOperation& operation, Values const& arguments) {
    TreflectMetaOperation const* const meta = operation.meta();
    TipprmiResult<Values> const results = operation.invoke(arguments);
    if (results)
        return results.value();
    if (results.code() == TipprmiFailure::kMismatch)
        throw Failure(ExitCode::kWrongUse, operation.mistake());
    throw failureOf(results.code(), nameOfException(meta->exceptionType(results.code())));
}

Shown readAttribute(TreflectAttribute& attribute) {
    TreflectOperation& get = attribute.operGet();
    Types const types = get.meta()->resultTypes();
    Values const values = callOperation(get, Values());
    if (values.getLength() == 0)
        return {};
    Shown shown = show(types, 0, values[0]);
    shown.unit = unitOf(*attribute.meta());
    return shown;
}

std::string commentOf(TreflectMetaAttribute const& attribute) {
    auto const* const tables =
        dynamic_cast<TreflectMetaClass const*>(attribute.containingMetaObject());
    return tables ? tables->docOf(attribute.name()) : "";
}

std::string unitOf(TreflectMetaAttribute const& attribute) {
    TreflectMetaOperation const* const get = attribute.metaOperGet();
    bool const isNumber =
        get && !get->resultTypes().empty() && isOfNumbers(get->resultTypes().front().name());
    return isNumber ? unitIn(commentOf(attribute)) : "";
}

Shown setAttribute(TreflectAttribute& attribute, Encode const& encode) {
    TreflectOperation& set = attribute.operSet();
    if (set.isError())
        throw Failure(ExitCode::kWrongUse, "the attribute is read-only");
    Types const types = set.meta()->argumentTypes();
    Values const values = encode(types);
    callOperation(set, values);
    Shown shown = show(types, 0, values[0]);
    shown.unit = unitOf(*attribute.meta());
    return shown;
}

std::optional<Shown> callForValue(TreflectOperation& operation, Encode const& encode) {
    Values const values = encode(operation.meta()->argumentTypes());
    Types const types = operation.meta()->resultTypes();
    Values const results = callOperation(operation, values);
    if (results.getLength() == 0)
        return std::nullopt;
    if (results.getLength() == 1)
        return show(types, 0, results[0]);
    return Shown{typesText(types), valuesText(types, results), valuesJson(types, results)};
}

// ---- Many at a time ----------------------------------------------------------------------------

namespace {

/** A path, and one of the objects that it tells. */
struct Task {
    std::size_t path;
    Found object;
    std::string member;  // or a pattern
    bool isOfPattern;    // one object of several: it need not have the member
    std::vector<Done> done;
};

/** None for an object of several that has no such member. */
std::vector<std::string> membersLike(TreflectObject const& object, Kind kind, Task const& task) {
    bool const isName = !Wildcard::isIn(task.member) && !task.isOfPattern;
    if (kind == Kind::kOne || isName)
        return {task.member};
    Wildcard const wildcard(task.member);
    std::vector<std::string> names;
    auto const add = [&](auto const& members) {
        for (auto const* const member : members) {
            if (wildcard.matches(member->name()))
                names.push_back(member->name());
        }
    };
    TreflectMetaObject const& meta = classOf(object);
    if (kind == Kind::kAttributes)
        add(attributesOf(meta));
    else
        add(operationsOf(meta));
    return names;
}

Done failed(std::string const& object, std::string const& member, Failure const& why) {
    return {object, member, std::nullopt, why.outcome(), why.what()};
}

std::vector<Done> useObject(Task const& task, Kind kind, Use const& use) {
    std::vector<Done> done;
    TreflectObject const object = handleOn(task.object.place);
    try {
        for (std::string const& member : membersLike(object, kind, task)) {
            try {
                done.push_back({task.object.name, member, use(object, member)});
            } catch (Failure const& why) {
                done.push_back(failed(task.object.name, member, why));
            }
        }
    } catch (Failure const& why) {
        done.push_back(failed(task.object.name, task.member, why));
    }
    return done;
}

/** The objects of all paths, and for those that lead nowhere why not. */
std::vector<Task> tasksOf(Tool& tool, std::vector<std::string> const& paths) {
    std::vector<Task> tasks;
    tool.objects().expect(paths.size());
    for (std::size_t i = 0; i < paths.size(); ++i) {
        MemberPath const path(paths[i]);
        try {
            for (Found const& object : tool.objects().find(path.object))
                tasks.push_back({i, object, path.member, Wildcard::isIn(path.object), {}});
        } catch (Failure const& why) {
            tasks.push_back({i,
                             {path.object, {}},
                             path.member,
                             false,
                             {failed(path.object, path.member, why)}});
        }
    }
    return tasks;
}

/** What has been done, path by path. A path with which nothing could be done is a failure. */
std::vector<Done> collected(std::vector<Task> const& tasks, std::vector<std::string> const& paths,
                            Kind kind) {
    std::vector<std::vector<Done>> ofPath(paths.size());
    for (Task const& task : tasks)
        ofPath[task.path].insert(ofPath[task.path].end(), task.done.begin(), task.done.end());
    std::vector<Done> all;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        MemberPath const path(paths[i]);
        if (ofPath[i].empty())
            all.push_back(failed(
                path.object, path.member,
                {ExitCode::kNotThere, kind == Kind::kAttributes ? "there is no such attribute"
                                                                : "there is no such operation"}));
        all.insert(all.end(), ofPath[i].begin(), ofPath[i].end());
    }
    return all;
}

/** Does them, and notes with each what has come of it. */
void perform(Asking& asking, std::vector<Task>& tasks, Kind kind, Use const& use) {
    std::map<unsigned int, std::vector<std::size_t>> ofBroker;
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        if (tasks[i].object.place.isSomewhere())
            ofBroker[tasks[i].object.place.broker].push_back(i);
    }
    std::vector<TreflectOrbId> brokers;
    std::vector<std::vector<std::size_t>> numbers;
    for (auto const& entry : ofBroker) {
        brokers.emplace_back(entry.first);
        numbers.push_back(entry.second);
    }
    using All = std::vector<std::vector<Done>>;
    auto const answers = asking.each<All>(
        brokers, [tasks, numbers, kind, use](std::size_t broker) -> std::optional<All> {
            All all;
            for (std::size_t const number : numbers[broker])
                all.push_back(useObject(tasks[number], kind, use));
            return all;
        });
    Failure const silent(ExitCode::kTimedOut, "no answer in time");
    for (std::size_t broker = 0; broker < brokers.size(); ++broker) {
        for (std::size_t i = 0; i < numbers[broker].size(); ++i) {
            Task& task = tasks[numbers[broker][i]];
            task.done = answers[broker]
                            ? answers[broker].value[i]
                            : std::vector{failed(task.object.name, task.member, silent)};
        }
    }
}

}  // namespace

std::vector<Done> useMembers(Tool& tool, std::vector<std::string> const& paths, Kind kind,
                             Use const& use) {
    std::vector<Task> tasks = tasksOf(tool, paths);
    perform(tool.asking(), tasks, kind, use);
    return collected(tasks, paths, kind);
}

std::vector<Done> useMember(Asking& asking, std::vector<Found> const& objects,
                            std::string const& member, Use const& use) {
    std::vector<Task> tasks;
    for (Found const& object : objects)
        tasks.push_back({0, object, member, false, {}});
    perform(asking, tasks, Kind::kOne, use);
    std::vector<Done> done;
    for (Task const& task : tasks)
        done.insert(done.end(), task.done.begin(), task.done.end());
    return done;
}

ExitCode tellDone(Tool& tool, std::vector<Done> const& done, bool withPaths, char const* listName) {
    ExitCode outcome = ExitCode::kDone;
    Table table({{"MEMBER"}, {"VALUE"}});
    Json all = Json::array();
    for (Done const& one : done) {
        all.push_back(one.json());
        if (one.outcome != ExitCode::kDone) {
            tool.output().complain(one.path() + ": " + one.text);
            outcome = outcome == ExitCode::kDone ? one.outcome : outcome;
        } else if (one.value) {
            std::string const text =
                tool.output().isTerminal() ? one.value->textWithUnit() : one.value->text;
            table.add({one.path(), text});
            if (!withPaths)
                tool.output().line(text);
        }
    }
    if (withPaths)
        tool.output().table(table);
    Json document = {{listName, all}};
    // A pattern may mean objects that those who do not answer have.
    if (tool.objects().mayMissAny()) {
        tool.objects().missing().tell(tool.output());
        document["missing"] = tool.objects().missing().json();
        outcome = outcome == ExitCode::kDone ? ExitCode::kTimedOut : outcome;
    }
    tool.output().document(document);
    return outcome;
}
