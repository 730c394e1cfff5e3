// Watching values, and watching and forbidding the calls that others make.
#pragma once

#include <reflect.h>

#include <string>

/** Prints every call of an operation with its arguments and results; or, if `member` is an
 * attribute, its value and each other one that it gets. Until it has printed `count` (0: any
 * number), until a signal comes, or until the object has gone; false then, and when there is no
 * such member. */
bool watch(TreflectObject const& object, std::string const& member, unsigned int count);

/** Forbids every call of an operation, and prints it. Ends likewise. */
bool veto(TreflectObject const& object, std::string const& operation, unsigned int count);
