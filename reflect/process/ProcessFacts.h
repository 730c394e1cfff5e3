#pragma once

#include "reflect/TreflectProcessObject.h"

/** What the system knows of this process. Any thread; takes some 100 microseconds. What it does not
 * tell is 0 or empty. */
namespace processfacts {

/** Without the brokers. */
processobject::Identity identity();
/** Without the objects. */
processobject::Usage usage();

}  // namespace processfacts
