// Arguments and results as text, by the types that a class describes.
#pragma once

#include <reflect.h>

#include <string>
#include <vector>

using Values = TipprmiSequence<TipprmiAny, 0u>;
using Types = std::vector<TreflectParameterType>;

/** "unsigned, string" */
std::string typesText(Types const& types);

/** "parts(string) -> sequence<string>" */
std::string signatureText(TreflectMetaOperation const& operation);

/** Encodes one argument for each type; false, and the user is told why, when that cannot be. */
bool parse(Types const& types, std::vector<std::string> const& texts, Values& values);

/** "50, true"; what is of no known type is shown as its bytes. */
std::string valuesText(Types const& types, Values const& values);
