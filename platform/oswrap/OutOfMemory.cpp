#include "oswrap/OutOfMemory.h"

#include <time.h>

#include "logging/LineLimit.h"
#include "oswrap/CancelGuards.h"

namespace OSWrap {
namespace {

constexpr char const* kSource = "OutOfMemory";

}  // namespace

void awaitMemory() {
    DisableCancelStateGuard const noCancel;
    static Logging::LineLimit limit(1);
    REFLECTORB_LOG_LIMITED(limit, 2, kSource, "No memory is left; the thread tries again");
    timespec const pause{0, 10'000'000};
    nanosleep(&pause, nullptr);
}

}  // namespace OSWrap
