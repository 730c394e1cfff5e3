// From the name of an object to a handle on it.
#pragma once

#include <reflect.h>

#include <string>

/** The object of an absolute name or an identifier; unconnected, and the user is told why, when it
 * is not there. */
TreflectObject find(std::string const& name);
