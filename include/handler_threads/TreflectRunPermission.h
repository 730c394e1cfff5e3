#pragma once

#include "handler_threads/HandlerThreads.h"
#include "oswrap/Export.h"

/** The process-wide run permission: each operation forwards to the one HandlerThreads object of the
 * process, where it is described. TreflectORB has operations of the same names. Any thread. */
class REFLECTORB_API TreflectRunPermission {
public:
    TreflectRunPermission() = delete;

    /** The object of this process, created on first use and never destroyed. */
    static TreflectHandlerThreads& handlerThreads();
    /** The operations of that object, see HandlerThreads. */
    static void enterHandlerState(bool getPermission);
    static void leaveHandlerState(bool releasePermission);
    static void checkHandlerState();
    static void getRunPermission();
    static void releaseRunPermission();
    static bool hasRunPermission();
    static bool isHandlerThread();
    static unsigned long getRunPermissionCount();
    static unsigned long getRunPermissionOwner();

private:
    static TreflectHandlerThreads& create();
};
