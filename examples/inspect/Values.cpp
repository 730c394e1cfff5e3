#include "Values.h"

#include "Report.h"

namespace {

/** Text between the elements of a list, for all but its first. */
char const* separator(std::size_t index) {
    return index == 0 ? "" : ", ";
}

std::string bytesText(TipprmiAny const& value) {
    TipprmiAny wrapped;
    wrapped.insert(value);
    return TreflectParameterType("any").print(wrapped).value();
}

std::string valueText(Types const& types, unsigned int index, TipprmiAny const& value) {
    if (index < types.size()) {
        if (TipprmiResult<std::string> const text = types[index].print(value))
            return text.value();
    }
    return bytesText(value);
}

}  // namespace

std::string typesText(Types const& types) {
    std::string text;
    for (std::size_t i = 0; i < types.size(); ++i)
        (text += separator(i)) += types[i].name().empty() ? "?" : types[i].name();
    return text;
}

std::string signatureText(TreflectMetaOperation const& operation) {
    std::string const results = typesText(operation.resultTypes());
    return operation.name() + "(" + typesText(operation.argumentTypes()) + ")" +
           (results.empty() ? "" : " -> " + results);
}

bool parse(Types const& types, std::vector<std::string> const& texts, Values& values) {
    if (texts.size() != types.size())
        return complain("arguments wanted: " + (types.empty() ? "none" : typesText(types)) +
                        "; given: " + std::to_string(texts.size()));
    values.setLength(static_cast<unsigned int>(types.size()));
    for (unsigned int i = 0; i < values.getLength(); ++i) {
        if (!types[i].parse(texts[i], values[i]))
            return complain("\"" + texts[i] + "\" is no value of type " + typesText({types[i]}));
    }
    return true;
}

std::string valuesText(Types const& types, Values const& values) {
    std::string text;
    for (unsigned int i = 0; i < values.getLength(); ++i)
        text += separator(i) + valueText(types, i, values[i]);
    return text;
}
