// Knows no class: calls every operation of an object whose class its process describes, with values
// that it makes from the types of the arguments.
#include <list>

#include "ActorSide.h"
#include "Permitted.h"
#include "Samples.h"

namespace {

using testsupport::answer;
using Types = std::vector<TreflectParameterType>;
using Values = TipprmiSequence<TipprmiAny, 0u>;

bool areEqual(TipprmiAny const& a, TipprmiAny const& b) {
    auto const bytes = [](TipprmiAny const& any) {
        return std::string(reinterpret_cast<char const*>(any.getDataPtr()),
                           static_cast<std::size_t>(any.getDataSize()));
    };
    return bytes(a) == bytes(b);
}

/** Whether the text of a value is understood as that value. */
bool isPrintedAndParsed(TreflectParameterType const& type, TipprmiAny const& value) {
    TipprmiResult<std::string> const text = type.print(value);
    TipprmiAny parsed;
    return text && type.parse(text.value(), parsed) && areEqual(parsed, value);
}

/** Calls one operation; the fault, empty when there is none. */
std::string call(TreflectOperation& operation, testsupport::Samples samples) {
    Types const in = operation.meta()->argumentTypes();
    Types const out = operation.meta()->resultTypes();
    Values arguments;
    for (TreflectParameterType const& type : in) {
        std::string const text = samples.of(type.name());
        TipprmiAny value;
        if (!type.parse(text, value))
            return "is no " + type.name() + ": " + text;
        arguments.push_back(value);
    }
    TipprmiResult<Values> const results = operation.invoke(arguments);
    if (!results || results.value().getLength() != out.size())
        return "failed with " + std::to_string(results.code());
    for (unsigned int i = 0; i < out.size(); ++i) {
        TipprmiAny const& result = results.value()[i];
        if (!isPrintedAndParsed(out[i], result))
            return "cannot be printed and parsed: " + out[i].name();
        if (in.size() == out.size() && in[i].name() == out[i].name() &&
            !areEqual(result, arguments[i]))
            return "does not come back: " + in[i].print(arguments[i]).value();
    }
    return {};
}

void callAll(std::string const& name) {
    TreflectObject const object(oid(name));
    TreflectMetaObject const* const meta = object.meta();
    bool const isLearned =
        meta && !InterfaceRepository::instance()->findInterface_(meta->getClassId());
    std::size_t called = 0;
    std::list<TreflectMetaOperation*> operations;
    if (isLearned)
        meta->operationList(operations);
    for (TreflectMetaOperation const* const operation : operations) {
        std::string const fault = call(object.operation(operation->name()), {name, meta->types()});
        if (fault.empty())
            ++called;
        else
            answer("fault: ", operation->name(), " ", fault);
    }
    answer("called ", called);
}

}  // namespace

int main() {
    TreflectMetaClass::learn(true);
    testsupport::obeyLines(
        {{"call", [](std::string const& name) { permitted([&] { callAll(name); }); }}});
    prepareOrbForDeletion();
    return 0;
}
