#include "handler_threads/HandlerThreadsType.h"

#include <atomic>

#include "logging/Log.h"

int HandlerThreadsTypeOutput(int cnt, int prm, int dbg) {
    static std::atomic<bool> told{false};
    if (!told.exchange(true))
        REFLECTORB_LOG(5, "HandlerThreadsType",
                       "HandlerThreadsType compiled with flags: cnt=%d, prm=%d, dbg=%d", cnt, prm,
                       dbg);
    return 1;
}
