#pragma once

#include "oswrap/ThreadAnnotations.h"

namespace handlerthreads {

/** What clang's check of locks knows the run permission by. Nothing but a name: the permission
 * itself is that of TreflectRunPermission. */
class OSW_CAPABILITY("run permission") RunPermission {};

/** For OSW_GUARDED_BY and OSW_REQUIRES. */
inline constexpr RunPermission runPermission{};

/**
 * The calling thread is taken to have the run permission from here on: in an operation whose caller
 * is asked to have it and whose misuse is tolerated, or with an object that nobody else knows yet.
 * Changes nothing at run time.
 */
inline void trustPermission() OSW_ASSERTS(runPermission) {}

}  // namespace handlerthreads

/** Behind a field that the run permission guards, and behind a function that is called with it. */
#define OSW_GUARDED_BY_PERMISSION OSW_GUARDED_BY(handlerthreads::runPermission)
#define OSW_REQUIRES_PERMISSION OSW_REQUIRES(handlerthreads::runPermission)
