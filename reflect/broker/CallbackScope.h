#pragma once

#include "handler_threads/TreflectRestoreHandlerState.h"
#include "reflect/TreflectORB.h"

/** Around a callback of the application: puts back what it changed of the thread's handler state
 * and run permission, and gives back the levels of the permission that it left behind, with which
 * the thread would keep the permission while it waits. */
class CallbackScope {
public:
    CallbackScope() : levels_(levels()) {}
    ~CallbackScope() {
        while (levels() > (levels_ == 0 ? 1 : levels_))
            TreflectORB::releaseRunPermission();
    }
    CallbackScope(CallbackScope const&) = delete;
    CallbackScope& operator=(CallbackScope const&) = delete;

private:
    static unsigned long levels() {
        return TreflectORB::hasRunPermission() ? TreflectORB::getRunPermissionCount() : 0;
    }

    TreflectRestoreHandlerState const restored_;
    unsigned long const levels_;
};
