#include "oswrap/Mutex.h"

namespace OSWrap {

Mutex::~Mutex() {
    pthread_mutex_destroy(&mutex_);
}

// The bodies are what the annotations promise, which the compiler cannot see in the calls of the
// threads library.
void Mutex::lock() OSW_NO_ANALYSIS
{ pthread_mutex_lock(&mutex_); }
bool Mutex::trylock() OSW_NO_ANALYSIS
{ return pthread_mutex_trylock(&mutex_) == 0; }
void Mutex::unlock() OSW_NO_ANALYSIS
{ pthread_mutex_unlock(&mutex_); }

CountedMutex::CountedMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

CountedMutex::~CountedMutex() {
    pthread_mutex_destroy(&mutex_);
}

void CountedMutex::lock() OSW_NO_ANALYSIS
{
    pthread_mutex_lock(&mutex_);
    count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

bool CountedMutex::trylock() OSW_NO_ANALYSIS
{
    if (pthread_mutex_trylock(&mutex_) != 0)
        return false;
    count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

void CountedMutex::unlock() OSW_NO_ANALYSIS
{
    count_.store(count_.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    pthread_mutex_unlock(&mutex_);
}

}  // namespace OSWrap
