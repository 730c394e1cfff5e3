#include "Use.h"

#include <cstdio>

#include "Report.h"
#include "Values.h"

namespace {

/** Calls an operation with arguments of the types that it describes. */
TipprmiResult<Values> call(TreflectOperation& operation, Values const& arguments) {
    TipprmiResult<Values> const results = operation.invoke(arguments);
    if (!results)
        complain(operation.meta()->name() + ": " + failureText(results.code()));
    return results;
}

}  // namespace

TreflectOperation& findOperation(TreflectObject const& object, std::string const& name) {
    TreflectOperation& operation = object.operation(name);
    if (operation.isError())
        complain(object.getAbsName() + " has no operation \"" + name + "\"");
    return operation;
}

bool setAttribute(TreflectObject const& object, std::string const& name, std::string const& value) {
    TreflectAttribute& attribute = object.attribute(name);
    if (attribute.isError())
        return complain(object.getAbsName() + " has no attribute \"" + name + "\"");
    TreflectOperation& set = attribute.operSet();
    if (set.isError())
        return complain("the attribute " + name + " is read-only");
    Values arguments;
    if (!parse(set.meta()->argumentTypes(), {value}, arguments) || !call(set, arguments))
        return false;
    std::printf("%s = %s\n", name.c_str(),
                valuesText(set.meta()->argumentTypes(), arguments).c_str());
    return true;
}

bool callOperation(TreflectObject const& object, std::string const& name,
                   std::vector<std::string> const& arguments) {
    TreflectOperation& operation = findOperation(object, name);
    Values values;
    if (operation.isError() || !parse(operation.meta()->argumentTypes(), arguments, values))
        return false;
    TipprmiResult<Values> const results = call(operation, values);
    if (!results)
        return false;
    std::string const text = valuesText(operation.meta()->resultTypes(), results.value());
    std::puts(text.empty() ? "done" : text.c_str());
    return true;
}
