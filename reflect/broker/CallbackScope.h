#pragma once

#include "handler_threads/TreflectRestoreHandlerState.h"
#include "reflect/TreflectORB.h"

/** Gives back what the application's code took of the run permission beyond so many levels. */
inline void giveBackLevelsBeyond(unsigned long most) {
    while (TreflectORB::hasRunPermission() && TreflectORB::getRunPermissionCount() > most)
        TreflectORB::releaseRunPermission();
}

/** Around a callback of the application: puts back what it changed of the thread's handler state
 * and run permission, and gives back the levels of the permission that it left behind, with which
 * the thread would keep the permission while it waits. */
class CallbackScope {
public:
    CallbackScope()
        : levels_(TreflectORB::hasRunPermission() ? TreflectORB::getRunPermissionCount() : 0) {}
    ~CallbackScope() { giveBackLevelsBeyond(levels_ == 0 ? 1 : levels_); }
    CallbackScope(CallbackScope const&) = delete;
    CallbackScope& operator=(CallbackScope const&) = delete;

private:
    TreflectRestoreHandlerState const restored_;
    unsigned long const levels_;
};
