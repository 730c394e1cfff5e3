#include "Members.h"

#include <oswrap.h>

#include <set>

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

std::string refusalText(TreflectMetaOperation const& operation, unsigned int code) {
    std::string const type = operation.exceptionType(code).name();
    constexpr char kStruct[] = "struct ";
    std::size_t const begin = type.rfind(kStruct, 0) == 0 ? sizeof kStruct - 1 : 0;
    return type.substr(begin, type.find('{') - begin);
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
    throw failureOf(results.code(), refusalText(*meta, results.code()));
}

Shown readAttribute(TreflectAttribute& attribute) {
    TreflectOperation& get = attribute.operGet();
    Types const types = get.meta()->resultTypes();
    Values const values = callOperation(get, Values());
    return values.getLength() == 0 ? Shown{} : show(types, 0, values[0]);
}

Shown setAttribute(TreflectAttribute& attribute, Encode const& encode) {
    TreflectOperation& set = attribute.operSet();
    if (set.isError())
        throw Failure(ExitCode::kWrongUse, "the attribute is read-only");
    Types const types = set.meta()->argumentTypes();
    Values const values = encode(types);
    callOperation(set, values);
    return show(types, 0, values[0]);
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

std::vector<std::string> membersLike(TreflectObject const& object, Kind kind,
                                     std::string const& pattern) {
    if (kind == Kind::kOne || !Wildcard::isIn(pattern))
        return {pattern};
    Wildcard const wildcard(pattern);
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

/** What one object has to do with a path. */
struct Target {
    Found object;
    std::string member;  // or a pattern
    std::vector<Done> done;
};

std::vector<Done> useObject(Target const& target, Kind kind, Use const& use) {
    std::vector<Done> done;
    TreflectObject const object = handleOn(target.object.place);
    try {
        for (std::string const& member : membersLike(object, kind, target.member)) {
            try {
                done.push_back({target.object.name, member, use(object, member)});
            } catch (Failure const& why) {
                done.push_back(failed(target.object.name, member, why));
            }
        }
    } catch (Failure const& why) {
        done.push_back(failed(target.object.name, target.member, why));
    }
    return done;
}

/** The objects of all paths, and for those that lead nowhere why not. */
std::vector<Target> targetsOf(Tool& tool, std::vector<std::string> const& paths) {
    std::vector<Target> targets;
    for (std::string const& text : paths) {
        MemberPath const path(text);
        try {
            for (Found const& object : tool.objects().find(path.object))
                targets.push_back({object, path.member, {}});
        } catch (Failure const& why) {
            targets.push_back(
                {{path.object, {}}, path.member, {failed(path.object, path.member, why)}});
        }
    }
    return targets;
}

std::vector<Done> useTargets(Asking& asking, std::vector<Target> targets, Kind kind,
                             Use const& use) {
    std::map<unsigned int, std::vector<std::size_t>> ofBroker;
    for (std::size_t i = 0; i < targets.size(); ++i) {
        if (targets[i].object.place.isSomewhere())
            ofBroker[targets[i].object.place.broker].push_back(i);
    }
    std::vector<TreflectOrbId> brokers;
    std::vector<std::vector<std::size_t>> numbers;
    for (auto const& entry : ofBroker) {
        brokers.emplace_back(entry.first);
        numbers.push_back(entry.second);
    }
    using All = std::vector<std::vector<Done>>;
    auto const answers = asking.each<All>(
        brokers, [targets, numbers, kind, use](std::size_t broker) -> std::optional<All> {
            All all;
            for (std::size_t const number : numbers[broker])
                all.push_back(useObject(targets[number], kind, use));
            return all;
        });
    Failure const silent(ExitCode::kTimedOut, "no answer in time");
    for (std::size_t broker = 0; broker < brokers.size(); ++broker) {
        for (std::size_t i = 0; i < numbers[broker].size(); ++i) {
            Target& target = targets[numbers[broker][i]];
            target.done = answers[broker]
                              ? answers[broker].value[i]
                              : std::vector{failed(target.object.name, target.member, silent)};
        }
    }
    std::vector<Done> done;
    for (Target const& target : targets)
        done.insert(done.end(), target.done.begin(), target.done.end());
    return done;
}

}  // namespace

std::vector<Done> useMembers(Tool& tool, std::vector<std::string> const& paths, Kind kind,
                             Use const& use) {
    return useTargets(tool.asking(), targetsOf(tool, paths), kind, use);
}

std::vector<Done> useMember(Asking& asking, std::vector<Found> const& objects,
                            std::string const& member, Use const& use) {
    std::vector<Target> targets;
    for (Found const& object : objects)
        targets.push_back({object, member, {}});
    return useTargets(asking, std::move(targets), Kind::kOne, use);
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
            table.add({one.path(), one.value->text});
            if (!withPaths)
                tool.output().line(one.value->text);
        }
    }
    if (withPaths)
        tool.output().table(table);
    tool.output().document({{listName, all}});
    return outcome;
}
