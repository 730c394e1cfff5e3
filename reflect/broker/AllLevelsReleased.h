#pragma once

#include "oswrap/CancelGuards.h"
#include "reflect/TreflectORB.h"

/** Gives up the run permission, all levels of it, for a scope. */
class AllLevelsReleased {
public:
    AllLevelsReleased()
        : levels_(TreflectORB::hasRunPermission() ? TreflectORB::getRunPermissionCount() : 0) {
        for (unsigned long i = 0; i < levels_; ++i)
            TreflectORB::releaseRunPermission();
    }
    ~AllLevelsReleased() {
        OSWrap::DisableCancelStateGuard const noCancel;
        for (unsigned long i = 0; i < levels_; ++i)
            TreflectORB::getRunPermission();
    }
    AllLevelsReleased(AllLevelsReleased const&) = delete;
    AllLevelsReleased& operator=(AllLevelsReleased const&) = delete;

private:
    unsigned long const levels_;
};
