#pragma once

#include <string>

#include "oswrap/Export.h"

/** Utilities of the handler-thread classes. Any thread. */
class REFLECTORB_API HTUtil {
public:
    /** OSWrap::Thread::getCurrentId. */
    static unsigned long getCurrentThreadId();
    /** The name of a thread for log lines; empty, since names are not tracked. */
    static std::string getName(unsigned long threadId);
    /** Logs `why` and at most 40 frames of the calling thread's stack, one line each (level 5). */
    static void printBacktrace(char const* why);
    /** Whether misuse of the run permission is to end the process: false in this build. */
    static bool willabort();
    /** Called after each report of misuse; the place where a debugging build ends the process. */
    static void testabort();
};

extern "C" {
/** HTUtil::willabort as 0 or 1. */
REFLECTORB_API int afw_htutil_willabort(void);
/** HTUtil::testabort. */
REFLECTORB_API void afw_htutil_testabort(void);
}
