#pragma once

#include "oswrap/Export.h"

extern "C" {
/**
 * For programs that want to leave in the log with which policies they were compiled: the first call
 * in a process logs its arguments (numbers of the container, of the permission and of the debugging
 * policy) at level 5, later calls do nothing. Always returns 1, so that it can be the first value
 * of a static object. Any thread.
 */
REFLECTORB_API int HandlerThreadsTypeOutput(int cnt, int prm, int dbg);
}
