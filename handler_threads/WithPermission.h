#pragma once

#include <cassert>

#include "handler_threads/RunPermission.h"
#include "handler_threads/TreflectHandlerState.h"
#include "handler_threads/TreflectRunPermission.h"

namespace handlerthreads {

/** Ends a debug build's process when the calling thread has not got the run permission. For
 * functions that have it though the compiler does not see that, such as the inside of a lambda. */
inline void assertPermission() OSW_ASSERTS(runPermission) {
    assert(TreflectRunPermission::hasRunPermission());
}

}  // namespace handlerthreads

/** Has the run permission for a scope: TreflectHandlerState(true), as the compiler's check of locks
 * sees it. For functions whose callers may or may not have the permission; one that always has it
 * says OSW_REQUIRES_PERMISSION instead. */
class OSW_SCOPED_CAPABILITY WithPermission {
public:
    WithPermission() OSW_ACQUIRE(handlerthreads::runPermission) : state_(true) {}
    ~WithPermission() OSW_RELEASE() {}
    WithPermission(WithPermission const&) = delete;
    WithPermission& operator=(WithPermission const&) = delete;

private:
    TreflectHandlerState const state_;
};
