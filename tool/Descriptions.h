// Classes as processes describe them.
#pragma once

#include <reflect.h>

#include <string>
#include <vector>

#include "Json.h"
#include "Tool.h"

/** A class, then its bases and the classes of its values. */
using Descriptions = std::vector<TreflectClassDescription>;

Json jsonOf(Descriptions const& descriptions);
/** What `jsonOf` writes, read again: enough of it to compare; throws a Failure when it is none. */
Descriptions descriptionsOf(Json const& json, std::string const& source);

/** The classes whose names a pattern tells, each as the first of the processes describes it that
 * knows it; throws a Failure when there are none. */
Descriptions describedBy(Tool& tool, Processes const& processes, std::string const& pattern);

/** "blink(unsigned times, string why) -> bool" */
std::string signatureOf(TreflectClassDescription::Operation const& operation);
/** The operation of this name; null when the class itself has none. */
TreflectClassDescription::Operation const* operationOf(TreflectClassDescription const& described,
                                                       std::string const& name);
/** The type of an attribute, by the operation that reads it; empty when a base has that. */
std::string typeOf(TreflectClassDescription const& described, std::string const& attribute);

/** The lines of a comment without its marks and empty ends. */
std::vector<std::string> linesOf(std::string const& comment);
std::string firstLineOf(std::string const& comment);
