#pragma once

#include "oswrap/Export.h"

/**
 * Gives back one level of the run permission for a scope in which the thread may block, and takes
 * it again afterwards, behind those who queued for it meanwhile. No effect on a thread that does
 * not hold it, or not in handler state. A thread that holds several levels keeps the permission.
 * Not cancellable inside. Make and destroy it on one thread.
 */
class REFLECTORB_API TreflectReleaseHandlerState {
public:
    TreflectReleaseHandlerState();
    ~TreflectReleaseHandlerState();
    TreflectReleaseHandlerState(TreflectReleaseHandlerState const&) = delete;
    TreflectReleaseHandlerState& operator=(TreflectReleaseHandlerState const&) = delete;

    /** Whether a level was given back. */
    bool released() const { return released_; }

private:
    bool const released_;  // a level was given back and is to be taken again
};
