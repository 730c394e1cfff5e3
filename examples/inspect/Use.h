// Members of an object, found by their names and used with values that are given as text.
#pragma once

#include <reflect.h>

#include <string>
#include <vector>

/** The operation of that name; the null operation, and the user is told, when there is none. */
TreflectOperation& findOperation(TreflectObject const& object, std::string const& name);

/** Changes an attribute; false, and the user is told why, when that cannot be. */
bool setAttribute(TreflectObject const& object, std::string const& name, std::string const& value);

/** Calls an operation and prints its results; false as above. */
bool callOperation(TreflectObject const& object, std::string const& name,
                   std::vector<std::string> const& arguments);
