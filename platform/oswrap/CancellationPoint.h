// Where threads of this library may be cancelled.
#pragma once

namespace OSWrap {

/**
 * Calls `wait`, whose only work is a call of the C library that is a cancellation point.
 *
 * Such a call lets a cancellation interrupt it between any two instructions. On 32-bit ARM the
 * unwind tables hold for the places of calls only, so where the cancellation meets a thread that is
 * just leaving its wait, the way up the stack is lost: the thread would end without its clean-ups,
 * and leave locked what it has locked. There the way up begins anew in this function.
 */
#if defined(__arm__)
int atCancellationPoint(int (*wait)(void*), void* argument);
#else
inline int atCancellationPoint(int (*wait)(void*), void* argument) {
    return wait(argument);
}
#endif

}  // namespace OSWrap
