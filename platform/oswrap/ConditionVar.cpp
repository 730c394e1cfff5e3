#include "oswrap/ConditionVar.h"

#include <cerrno>

#include "platform/oswrap/CancellationPoint.h"

namespace {

struct Sleep {
    pthread_cond_t* condition;
    pthread_mutex_t* mutex;
    clockid_t clock;
    timespec end;
};

int sleepOn(void* what) {
    auto const& sleep = *static_cast<Sleep*>(what);
    return pthread_cond_wait(sleep.condition, sleep.mutex);
}

int sleepUntil(void* what) {
    auto const& sleep = *static_cast<Sleep*>(what);
    return pthread_cond_clockwait(sleep.condition, sleep.mutex, sleep.clock, &sleep.end);
}

}  // namespace

namespace OSWrap {

ConditionVar::ConditionVar(bool monotonic)
    : mutex_(PTHREAD_MUTEX_INITIALIZER), clock_(monotonic ? CLOCK_MONOTONIC : CLOCK_REALTIME) {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, clock_);
    pthread_cond_init(&condition_, &attributes);
    pthread_condattr_destroy(&attributes);
}

ConditionVar::~ConditionVar() {
    pthread_cond_destroy(&condition_);
    pthread_mutex_destroy(&mutex_);
}

void ConditionVar::lock() OSW_NO_ANALYSIS
{ pthread_mutex_lock(&mutex_); }
bool ConditionVar::trylock() OSW_NO_ANALYSIS
{ return pthread_mutex_trylock(&mutex_) == 0; }
void ConditionVar::unlock() OSW_NO_ANALYSIS
{ pthread_mutex_unlock(&mutex_); }

// A cancellation unwinds through here with the mutex locked again, as the threads library
// prescribes; there is nothing to clean up.
bool ConditionVar::wait(TimeSpec const& limit) OSW_NO_ANALYSIS
{
    Sleep sleep{&condition_, &mutex_, clock_, {}};
    if (limit.isInfinite()) {
        atCancellationPoint(sleepOn, &sleep);
        return true;
    }
    clock_gettime(clock_, &sleep.end);
    sleep.end = (TimeSpec(sleep.end.tv_sec, sleep.end.tv_nsec) + limit).toTimespec();
    return atCancellationPoint(sleepUntil, &sleep) != ETIMEDOUT;
}

void ConditionVar::signal() {
    pthread_cond_signal(&condition_);
}
void ConditionVar::broadcast() {
    pthread_cond_broadcast(&condition_);
}

}  // namespace OSWrap
