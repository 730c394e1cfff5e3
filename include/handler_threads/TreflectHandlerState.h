#pragma once

#include "oswrap/Export.h"

/**
 * Puts the calling thread into handler state, with the run permission if asked for, for a scope. A
 * thread that was there already is left as it is, so guards nest at next to no cost and never take
 * a second level of the permission. Not cancellable inside: a cancellation that arrives while the
 * guard waits for the permission stays pending until it has it. Make and destroy it on one thread.
 */
class REFLECTORB_API TreflectHandlerState {
public:
    /** With `getPermission`, waits for the run permission unless the thread has it already. */
    explicit TreflectHandlerState(bool getPermission);
    ~TreflectHandlerState() { cleanupHandlerState(this); }
    TreflectHandlerState(TreflectHandlerState const&) = delete;
    TreflectHandlerState& operator=(TreflectHandlerState const&) = delete;

    /** Undoes what the guard `guard` changed; no effect for null. */
    static void cleanupHandlerState(void* guard);

private:
    bool const wasHandler_;     // the thread was in handler state before
    bool const hadPermission_;  // it held the permission before
};
