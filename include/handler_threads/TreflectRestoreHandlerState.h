#pragma once

#include "oswrap/Export.h"

/** Puts back, at the end of a scope, the handler state and the run permission that the thread had
 * at its beginning, whatever the code in between (a callback of the application) did to them. Not
 * cancellable inside. Make and destroy it on one thread. */
class REFLECTORB_API TreflectRestoreHandlerState {
public:
    TreflectRestoreHandlerState();
    ~TreflectRestoreHandlerState();
    TreflectRestoreHandlerState(TreflectRestoreHandlerState const&) = delete;
    TreflectRestoreHandlerState& operator=(TreflectRestoreHandlerState const&) = delete;

private:
    bool const wasHandler_;
    bool const hadPermission_;
};
