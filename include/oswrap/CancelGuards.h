#pragma once

#include <pthread.h>

#include "oswrap/Export.h"

namespace OSWrap {

/** Makes cancellation of the calling thread deferred for a scope, then puts the old type back. */
class REFLECTORB_API DeferredCancelTypeGuard {
public:
    DeferredCancelTypeGuard() { pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &previous_); }
    ~DeferredCancelTypeGuard() { pthread_setcanceltype(previous_, nullptr); }
    DeferredCancelTypeGuard(DeferredCancelTypeGuard const&) = delete;
    DeferredCancelTypeGuard& operator=(DeferredCancelTypeGuard const&) = delete;

private:
    int previous_ = PTHREAD_CANCEL_DEFERRED;
};

/** Disables cancellation of the calling thread for a scope, then puts the old state back. A
 * cancellation asked for meanwhile stays pending. */
class REFLECTORB_API DisableCancelStateGuard {
public:
    /** With `disable` false the guard does nothing. */
    explicit DisableCancelStateGuard(bool disable = true) : disabled_(disable) {
        if (disabled_)
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_);
    }
    ~DisableCancelStateGuard() {
        if (disabled_)
            pthread_setcancelstate(previous_, nullptr);
    }
    DisableCancelStateGuard(DisableCancelStateGuard const&) = delete;
    DisableCancelStateGuard& operator=(DisableCancelStateGuard const&) = delete;

private:
    bool const disabled_;
    int previous_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace OSWrap
