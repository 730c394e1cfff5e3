// Compiled without exceptions but with unwind tables: only then do the clean-up macros save the
// registers, to jump here when the stack cannot be unwound, and only so goes the way on from here.
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
