// The scoped guards. Each looks at the thread's state first and returns at once when there is
// nothing to change; only changes are made with cancellation disabled.
#include "handler_threads/TreflectHandlerState.h"
#include "handler_threads/TreflectReleaseHandlerState.h"
#include "handler_threads/TreflectRestoreHandlerState.h"
#include "handler_threads/TreflectRunPermission.h"
#include "oswrap/CancelGuards.h"

using Run = TreflectRunPermission;

TreflectHandlerState::TreflectHandlerState(bool getPermission)
    : wasHandler_(Run::isHandlerThread()), hadPermission_(wasHandler_ && Run::hasRunPermission()) {
    if (wasHandler_ && (hadPermission_ || !getPermission))
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    if (!wasHandler_)
        Run::enterHandlerState(getPermission);
    else
        Run::getRunPermission();
}

void TreflectHandlerState::cleanupHandlerState(void* guard) {
    auto const* const self = static_cast<TreflectHandlerState const*>(guard);
    if (!self || (self->wasHandler_ && self->hadPermission_) || !Run::isHandlerThread())
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    if (Run::hasRunPermission() && !self->hadPermission_)
        Run::releaseRunPermission();
    if (!self->wasHandler_)
        Run::leaveHandlerState(false);
}

TreflectReleaseHandlerState::TreflectReleaseHandlerState()
    : released_(Run::isHandlerThread() && Run::hasRunPermission()) {
    if (!released_)
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    Run::releaseRunPermission();
}

TreflectReleaseHandlerState::~TreflectReleaseHandlerState() {
    if (!released_)
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    if (!Run::isHandlerThread())
        Run::enterHandlerState(true);
    else if (!Run::hasRunPermission())
        Run::getRunPermission();
}

TreflectRestoreHandlerState::TreflectRestoreHandlerState()
    : wasHandler_(Run::isHandlerThread()), hadPermission_(Run::hasRunPermission()) {}

TreflectRestoreHandlerState::~TreflectRestoreHandlerState() {
    bool const isHandler = Run::isHandlerThread();
    bool const hasPermission = Run::hasRunPermission();
    if (isHandler == wasHandler_ && hasPermission == hadPermission_)
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    if (wasHandler_ && !isHandler) {
        Run::enterHandlerState(hadPermission_);
        return;
    }
    if (hadPermission_ && !hasPermission)
        Run::getRunPermission();
    while (!hadPermission_ && Run::hasRunPermission())
        Run::releaseRunPermission();
    while (!wasHandler_ && Run::isHandlerThread())
        Run::leaveHandlerState(false);
}
