// The engine waits until a time of day: when somebody sets the clock back, it would sleep longer by
// as much, and the other machines would take this one for dead. Its calls arrive here instead of at
// the C library, and wait for as long as they meant to. Everything else in this program says which
// clock it goes by (`pthread_cond_clockwait`).
#include <pthread.h>
#include <time.h>

namespace {

constexpr long kNanosecondsOfSecond = 1'000'000'000;

timespec operator-(timespec const& a, timespec const& b) {
    timespec left{a.tv_sec - b.tv_sec, a.tv_nsec - b.tv_nsec};
    if (left.tv_nsec < 0) {
        left.tv_nsec += kNanosecondsOfSecond;
        --left.tv_sec;
    }
    return left;
}

timespec operator+(timespec const& a, timespec const& b) {
    timespec sum{a.tv_sec + b.tv_sec, a.tv_nsec + b.tv_nsec};
    if (sum.tv_nsec >= kNanosecondsOfSecond) {
        sum.tv_nsec -= kNanosecondsOfSecond;
        ++sum.tv_sec;
    }
    return sum;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_cond_timedwait(
    pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* timeOfDay) {
    timespec day{}, now{};
    clock_gettime(CLOCK_REALTIME, &day);
    clock_gettime(CLOCK_MONOTONIC, &now);
    timespec end = now + (*timeOfDay - day);
    if (end.tv_sec < 0)
        end = {0, 0};
    return pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &end);
}
