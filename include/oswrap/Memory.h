#pragma once

#include "oswrap/Export.h"

/** Resident size of this process in bytes; -1 when the system does not tell. */
REFLECTORB_API long oscwGetActorSize();
/** Memory of the machine that is available to new work, in bytes, at most LONG_MAX; -1 when the
 * system does not tell. */
REFLECTORB_API long oscwGetUnitFreeMem();
