// Values as text and as JSON, by the types that a class describes.
#pragma once

#include <reflect.h>

#include <string>
#include <vector>

#include "Json.h"

using Values = TipprmiSequence<TipprmiAny, 0u>;
using Types = std::vector<TreflectParameterType>;

/** A value that has been read: as people see it, and as programs do. A value. */
struct Shown {
    std::string type;
    std::string text;
    Json json;
    std::string unit = {};  // of its numbers, if that is known

    /** "42 %" */
    std::string textWithUnit() const { return unit.empty() ? text : text + " " + unit; }
    /** As a member of its own, if there is one: values stay what they are. */
    void addUnit(Json& told) const {
        if (!unit.empty())
            told["unit"] = unit;
    }
};

/** "unsigned, string" */
std::string typesText(Types const& types);
/** "parts(string prefix) -> sequence<string>" */
std::string signatureText(TreflectMetaOperation const& operation);
/** [{"name": ..., "type": ...}] */
Json typesJson(Types const& types);

/** Encodes one argument for each type; throws a Failure when that cannot be. Under the run
 * permission. */
Values parseValues(Types const& types, std::vector<std::string> const& texts);
/** The same for JSON, a list of one for each: what `valuesJson` makes of values, or their texts. */
Values parseJson(Types const& types, Json const& arguments);
/** One value by its type; what is of no known type is shown as its bytes. */
Shown show(Types const& types, unsigned int index, TipprmiAny const& value);
/** "50, true" */
std::string valuesText(Types const& types, Values const& values);
Json valuesJson(Types const& types, Values const& values);

/** The JSON of a value's text as TreflectParameterType prints it: numbers, truth, lists and values
 * with names as such, all else as strings. */
Json jsonOfText(std::string const& text);
