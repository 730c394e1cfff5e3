#include "Watching.h"

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

/** Keeps values; what is to be told of them is made when somebody wants to read it. */
void addLater(Events& events, Values const& values, bool counts,
              std::function<void(Event&, Values const&)> const& tell) {
    Event event;
    event.counts = counts;
    for (unsigned int i = 0; i < values.getLength(); ++i)
        event.bytes += static_cast<std::size_t>(values[i].getDataSize());
    event.rest = [values, tell](Event& told) { tell(told, values); };
    events.add(std::move(event));
}

}  // namespace

bool Watched::watchValue(std::string const& name) {
    TreflectAttribute& attribute = attributeOf(object_, name);
    Types const types = attribute.operGet().meta()->resultTypes();
    auto const tell = [object = name_, name, types](Event& event, Values const& values) {
        Shown const shown = show(types, 0, values[0]);
        event.line = object + "/" + name + " = " + shown.text;
        event.json = {{"event", "value"},
                      {"object", object},
                      {"member", name},
                      {"type", shown.type},
                      {"value", shown.json}};
    };
    values_.push_back(std::make_unique<TreflectAttributeWatch>(
        attribute, [&events = events_, tell](TipprmiAny const& value) {
            addLater(events, alone(value), true, tell);
        }));
    return !values_.back()->isError();
}

bool Watched::watchCalls(std::string const& name) {
    TreflectOperation& operation = operationOf(object_, name);
    Types const out = operation.meta()->resultTypes();
    auto const tellEnd = [object = name_, name, out](Event& event, Values const& results) {
        std::string const fate = fateOf(out, results.getLength());
        event.line = "end  " + object + "/" + name;
        if (results.getLength() > 0)
            event.line += " -> " + valuesText(out, results);
        else if (!out.empty())
            event.line += " " + fate;
        event.json = json(object, "end", name, "results", valuesJson(out, results));
        event.json["fate"] = fate;
    };
    Observer& before =
        observe([this, tell = callTeller("call ", "call", operation)](Values const& arguments) {
            addLater(events_, arguments, false, tell);
            return true;
        });
    Observer& after = observe([this, tellEnd, out](Values const& results) {
        // Of one that sets an attribute it is also told that the object itself has changed that.
        if (!out.empty() || results.getLength() == 0)
            addLater(events_, results, true, tellEnd);
        return true;
    });
    return operation.preObserve(&before) && operation.postObserve(&after);
}

bool Watched::veto(std::string const& name) {
    TreflectOperation& operation = operationOf(object_, name);
    return operation.preObserve(&observe(
        [this, tell = callTeller("forbidden ", "vetoed", operation)](Values const& arguments) {
            addLater(events_, arguments, true, tell);
            return false;
        }));
}

Watched::Teller Watched::callTeller(char const* word, char const* event,
                                    TreflectOperation const& operation) const {
    return [word, event, object = name_, name = operation.meta()->name(),
            in = operation.meta()->argumentTypes()](Event& told, Values const& arguments) {
        told.line = word + object + "/" + name + "(" + valuesText(in, arguments) + ")";
        told.json = json(object, event, name, "arguments", valuesJson(in, arguments));
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
