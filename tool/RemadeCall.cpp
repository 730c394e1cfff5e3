#include "RemadeCall.h"

#include <handler_threads.h>

#include <string_view>

#include "Members.h"

namespace {

bool areEqual(Values const& values, recording::Anys const& others) {
    if (values.getLength() != others.size())
        return false;
    for (unsigned int i = 0; i < values.getLength(); ++i) {
        auto const bytes = [](TipprmiAny const& any) {
            return std::string_view(reinterpret_cast<char const*>(any.getDataPtr()),
                                    static_cast<std::size_t>(any.getDataSize()));
        };
        if (bytes(values[i]) != bytes(others[i]))
            return false;
    }
    return true;
}

/** Where an object of that name or identifier is now. */
Place placeNow(std::string const& name) {
    bool const isName = name[0] == '/';
    std::size_t end = isName ? name.find('/', 1) : std::string::npos;
    constexpr std::string_view kOfNode = "@node";
    std::string root = name.substr(isName, end - isName);
    bool const isOfNode = !isName && root.size() > kOfNode.size() &&
                          root.compare(root.size() - kOfNode.size(), kOfNode.size(), kOfNode) == 0;
    if (isOfNode)
        root.resize(root.size() - kOfNode.size());
    TreflectObject object(TipprmiOID(root, isOfNode ? NSID_NODE : NSID_UNIT));
    while (end != std::string::npos && object.isConnected()) {
        std::size_t const begin = end + 1;
        end = name.find('/', begin);
        object = object.getChild(name.substr(begin, end - begin));
    }
    return object.isConnected() ? placeOf(object) : Place();
}

Values resultsAt(Place place, RecordedCall const& call) {
    if (!place.isSomewhere())
        throw Failure(ExitCode::kNotThere, "the object is not there");
    TreflectObject const object = handleOn(place);
    return callOperation(operationOf(object, call.operation), valuesOf(call.arguments));
}

std::string textOf(RecordedCall const& call, Values const& results) {
    std::string const text = valuesText(call.resultTypes, results);
    return text.empty() ? "done" : text;
}

std::string thenText(RecordedCall const& call) {
    return call.refusal.empty() ? textOf(call, valuesOf(call.results)) : call.refusal;
}

/** Whether it is known what came of it. */
bool isKnown(RecordedCall const& call) {
    return call.fate && call.fate->kind != Fate::Kind::kEnded;
}

/** Whether it was refused then in the same way. */
bool isSameRefusal(RecordedCall const& call, Failure const& why) {
    if (!call.fate || !call.fate->isRefusal())
        return false;
    if (call.fate->code == 0)
        return why.outcome() == ExitCode::kRefused;  // how is not known
    Failure const then = failureOf(call.fate->code);
    std::string const now = why.what();
    return then.outcome() == why.outcome() &&
           now.substr(0, now.find(',')) == std::string(then.what());
}

}  // namespace

Values valuesOf(recording::Anys const& anys) {
    Values values;
    values.setLength(static_cast<unsigned int>(anys.size()));
    for (unsigned int i = 0; i < values.getLength(); ++i)
        values[i] = anys[i];
    return values;
}

RemadeCall Remaker::remake(RecordedCall const& call) {
    try {
        return done(call, results(call));
    } catch (Failure const& why) {
        return failed(call, why);
    }
}

/** An object may have come, or come anew, by a call of the recording itself. */
Values Remaker::results(RecordedCall const& call) {
    TreflectHandlerState const inside(true);
    TreflectDeadline const within(patience_);
    bool const isNew = places_.count(call.object) == 0;
    if (isNew)
        places_[call.object] = placeNow(call.object);
    try {
        return resultsAt(places_[call.object], call);
    } catch (Failure const& why) {
        if (isNew || why.outcome() != ExitCode::kNotThere)
            throw;
    }
    places_[call.object] = placeNow(call.object);
    return resultsAt(places_[call.object], call);
}

RemadeCall Remaker::done(RecordedCall const& call, Values const& results) const {
    RemadeCall remade;
    std::string const text = valuesText(call.resultTypes, results);
    remade.text = text.empty() ? "" : " -> " + text;
    remade.json = {{"results", valuesJson(call.resultTypes, results)}};
    // Handles on an object and on another one of its name differ, and are shown alike.
    bool const isSame =
        !isKnown(call) ||
        (call.fate->kind == Fate::Kind::kDone &&
         (areEqual(results, call.results) || thenText(call) == textOf(call, results)));
    if (isSame || !isChecked_)
        return remade;
    remade.difference = thenText(call) + " then, now " + textOf(call, results);
    remade.why = ExitCode::kRefused;
    return remade;
}

/** A call that cannot be made is a failure in any case; one that is refused only if it was not
 * then. */
RemadeCall Remaker::failed(RecordedCall const& call, Failure const& why) const {
    RemadeCall remade;
    remade.text = std::string(": ") + why.what();
    remade.json = {{"error", errorJson(why.outcome(), why.what())}};
    if (isSameRefusal(call, why))
        return remade;
    if (isKnown(call) || why.outcome() != ExitCode::kRefused)
        remade.why = why.outcome();
    if (isKnown(call) && isChecked_)
        remade.difference = thenText(call) + " then, now " + why.what();
    return remade;
}
