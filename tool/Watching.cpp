#include "Watching.h"

#include <map>

#include "Members.h"
#include "Wildcard.h"

/** Observers are objects that the observed object calls: it waits for them. */
class Watched::Observer final : public TreflectObserver {
public:
    explicit Observer(Reaction reaction) : reaction_(std::move(reaction)) {}

    bool update() override { return reaction_(arguments()); }

private:
    Reaction const reaction_;
};

namespace {

Values alone(TipprmiAny const& value) {
    Values values;
    values.push_back(value);
    return values;
}

}  // namespace

void Watched::addLater(Values const& values, bool counts, Teller const& tell) const {
    if (isOver_)
        return;
    Event event;
    event.counts = counts;
    for (unsigned int i = 0; i < values.getLength(); ++i)
        event.bytes += static_cast<std::size_t>(values[i].getDataSize());
    event.rest = [values, tell](Event& told) { tell(told, values); };
    events_.add(std::move(event));
}

bool Watched::watchValue(std::string const& name) {
    TreflectAttribute& attribute = attributeOf(object_, name);
    Types const types = attribute.operGet().meta()->resultTypes();
    auto const tell = [object = name_, name, types, unit = unitOf(*attribute.meta())](
                          Event& event, Values const& values) {
        Shown shown = show(types, 0, values[0]);
        shown.unit = unit;
        event.line = object + "/" + name + " = " + shown.textWithUnit();
        event.json = {{"event", "value"},
                      {"object", object},
                      {"member", name},
                      {"type", shown.type},
                      {"value", shown.json}};
        shown.addUnit(event.json);
    };
    values_.push_back(std::make_unique<TreflectAttributeWatch>(
        attribute, [this, tell](TipprmiAny const& value) { addLater(alone(value), true, tell); }));
    return !values_.back()->isError();
}

bool Watched::watchCalls(std::string const& name) {
    TreflectMetaOperation const& meta = *operationOf(object_, name).meta();
    auto const begun = [this, tell = callTeller("call ", "call", meta)](HeardCall const& call) {
        addLater(call.values, false,
                 [tell, id = id_, caller = call.caller, number = call.number](
                     Event& event, Values const& arguments) {
                     tell(event, arguments);
                     addCaller(event, caller, number);
                     addId(event, id);
                 });
    };
    auto const ended = [this, tell = endTeller(meta)](HeardCall const& call, Fate const& fate) {
        addLater(call.values, true,
                 [tell, fate, id = id_, caller = call.caller, number = call.number](
                     Event& event, Values const& results) {
                     tell(event, results, fate);
                     addCaller(event, caller, number);
                     addId(event, id);
                 });
    };
    auto observer = std::make_unique<CallObserver>(begun, ended);
    CallObserver& observing = *observer;
    observers_.push_back(std::move(observer));
    return observing.observe(object_, meta);
}

void Watched::addCaller(Event& event, std::string const& caller, unsigned int number) {
    if (number == 0)
        return;
    event.line += "  by " + caller;
    event.json["caller"] = caller;
    event.json["call"] = number;
}

void Watched::addId(Event& event, std::string const& id) {
    if (!id.empty())
        event.json["id"] = id;
}

bool Watched::veto(std::string const& name) {
    TreflectMetaOperation const& meta = *operationOf(object_, name).meta();
    Observer& observer =
        observe([this, tell = callTeller("forbidden ", "vetoed", meta)](Values const& given) {
            addLater(given, true, tell);
            return false;
        });
    TreflectObjectStub const* const stub = object_.getStub_();
    return stub && stub->observe(TreflectObservable::kBeforeCalls, &meta, &observer);
}

Watched::Teller Watched::callTeller(char const* word, char const* event,
                                    TreflectMetaOperation const& operation) const {
    return [word, event, object = name_, name = operation.name(), in = operation.argumentTypes()](
               Event& told, Values const& arguments) {
        told.line = word + object + "/" + name + "(" + valuesText(in, arguments) + ")";
        told.json = json(object, event, name, "arguments", valuesJson(in, arguments));
    };
}

Watched::EndTeller Watched::endTeller(TreflectMetaOperation const& operation) const {
    std::map<unsigned int, TreflectParameterType> exceptions;
    for (auto const& exception : operation.exceptions())
        exceptions.emplace(exception.first, operation.exceptionType(exception.first));
    return [object = name_, name = operation.name(), out = operation.resultTypes(), exceptions](
               Event& told, Values const& results, Fate const& fate) {
        auto const exception = exceptions.find(fate.code);
        std::string const refusal = fate.text(
            exception == exceptions.end() ? TreflectParameterType("") : exception->second);
        told.line = "end  " + object + "/" + name;
        if (results.getLength() > 0)
            told.line += " -> " + valuesText(out, results);
        else if (!refusal.empty())
            told.line += ": " + refusal;
        told.json = json(object, "end", name, "results", valuesJson(out, results));
        told.json["fate"] = fate.name();
        if (!refusal.empty())
            told.json["error"] = {{"code", fate.code}, {"text", refusal}};
    };
}

Watched::Observer& Watched::observe(Reaction reaction) {
    auto observer = std::make_unique<Observer>(std::move(reaction));
    Observer& observing = *observer;
    observers_.push_back(std::move(observer));
    return observing;
}

Json Watched::json(std::string const& object, char const* event, std::string const& member,
                   char const* valuesName, Json const& values) {
    return {{"event", event}, {"object", object}, {"member", member}, {valuesName, values}};
}

namespace {

bool isAccessor(TreflectMetaObject const& meta, std::string const& name) {
    for (TreflectMetaAttribute const* const attribute : attributesOf(meta)) {
        if (name == "get" + attribute->name() || name == "set" + attribute->name())
            return true;
    }
    return false;
}

}  // namespace

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
