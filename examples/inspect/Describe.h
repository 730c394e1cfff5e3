// What an object is.
#pragma once

#include <reflect.h>

/** Prints the name, classes, attributes and operations of an object whose class is known here. */
void describe(TreflectObject const& object);

/** Prints the tree of names from an object downwards. */
void printTree(TreflectObject const& object);
