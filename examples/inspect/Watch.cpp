#include "Watch.h"

#include <handler_threads.h>

#include <functional>

#include "EndSignals.h"
#include "Report.h"
#include "Use.h"
#include "Values.h"

namespace {

/** What is to be done at a call, with its arguments or its results; false forbids it. */
using Reaction = std::function<bool(Values const&)>;

/** Observers are objects that the observed object calls. */
class Observer final : public TreflectObserver {
public:
    explicit Observer(Reaction reaction) : reaction_(std::move(reaction)) {}

    bool update() override { return reaction_(arguments()); }

private:
    Reaction const reaction_;
};

/** Counts calls up to a number of them that is wanted; 0 for any number. Guarded by the run
 * permission. */
struct Tally {
    unsigned int const wanted;
    unsigned int seen = 0;

    bool isFull() const { return wanted != 0 && seen >= wanted; }
};

/** Lets observers work until they have seen all calls that are wanted, or until a signal comes;
 * false when the object goes before. */
bool observe(TreflectObject const& object, Tally const& tally) {
    while (!tally.isFull()) {
        if (endSignalled())
            break;
        if (!object.isConnected())
            return complain("the object has gone");
    }
    return true;
}

/** Prints the value that an attribute has and each that it gets. */
bool watchValue(TreflectObject const& object, std::string const& name, unsigned int count) {
    TreflectAttribute& attribute = object.attribute(name);
    Types const types = attribute.operGet().meta()->resultTypes();
    Tally tally{count};
    say("watching " + name + " of " + object.getAbsName());
    TreflectAttributeWatch const watch(attribute, [&](TipprmiAny const& value) {
        if (tally.isFull())
            return;
        Values shown;
        shown.push_back(value);
        say(name + " = " + valuesText(types, shown));
        ++tally.seen;
    });
    return observe(object, tally);
}

bool watchCalls(TreflectObject const& object, std::string const& name, unsigned int count) {
    TreflectOperation& operation = findOperation(object, name);
    if (operation.isError())
        return false;
    Tally tally{count};
    Observer before([&](Values const& arguments) {
        if (tally.isFull())
            return true;
        say("call " + name + "(" + valuesText(operation.meta()->argumentTypes(), arguments) + ")");
        return true;
    });
    Observer after([&](Values const& results) {
        if (tally.isFull())
            return true;
        std::string const text = valuesText(operation.meta()->resultTypes(), results);
        say("end  " + name + (text.empty() ? "" : " -> " + text));
        ++tally.seen;
        return true;
    });
    operation.preObserve(&before);
    operation.postObserve(&after);
    say("watching " + name + " of " + object.getAbsName());
    bool const ended = observe(object, tally);
    operation.removeObserver(&before);
    operation.removeObserver(&after);
    return ended;
}

}  // namespace

bool watch(TreflectObject const& object, std::string const& name, unsigned int count) {
    TreflectMetaObject const* const meta = object.meta();
    bool const isAttribute = meta && !meta->metaOperation(name) && meta->metaAttribute(name);
    return isAttribute ? watchValue(object, name, count) : watchCalls(object, name, count);
}

bool veto(TreflectObject const& object, std::string const& name, unsigned int count) {
    TreflectOperation& operation = findOperation(object, name);
    if (operation.isError())
        return false;
    Tally tally{count};
    Observer guard([&](Values const& arguments) {
        if (tally.isFull())
            return true;
        say("forbidden: " + name + "(" + valuesText(operation.meta()->argumentTypes(), arguments) +
            ")");
        ++tally.seen;
        return false;
    });
    operation.preObserve(&guard);
    say("forbidding " + name + " of " + object.getAbsName());
    bool const ended = observe(object, tally);
    operation.removeObserver(&guard);
    return ended;
}
