// This file is compiled without exceptions but with unwind tables. The clean-up macros then save
// the registers, so that a cancelled thread whose stack cannot be unwound further down jumps to
// this frame and unwinds on from here. With exceptions the macros would be objects with
// destructors, which such a thread never reaches.
#include "platform/oswrap/CancellationPoint.h"

#if defined(__arm__)
#include <pthread.h>

namespace {

void nothing(void*) {}

}  // namespace

int OSWrap::atCancellationPoint(int (*wait)(void*), void* argument) {
    int result = 0;
    pthread_cleanup_push(nothing, nullptr);
    result = wait(argument);
    pthread_cleanup_pop(0);
    return result;
}
#endif
