#include "oswrap/ConditionVar.h"

#include <cerrno>

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
    if (limit.isInfinite()) {
        pthread_cond_wait(&condition_, &mutex_);
        return true;
    }
    timespec now{};
    clock_gettime(clock_, &now);
    timespec const end = (TimeSpec(now.tv_sec, now.tv_nsec) + limit).toTimespec();
    return pthread_cond_timedwait(&condition_, &mutex_, &end) != ETIMEDOUT;
}

void ConditionVar::signal() {
    pthread_cond_signal(&condition_);
}
void ConditionVar::broadcast() {
    pthread_cond_broadcast(&condition_);
}

}  // namespace OSWrap
