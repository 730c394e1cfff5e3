// Classes as IDL.
#pragma once

#include <string>

#include "Descriptions.h"

/** A class and its bases as IDL, of which the interface compiler makes a class with the same ids
 * and codes. What IDL has no words for is left out, with a comment. */
std::string idlOf(Descriptions const& descriptions);
