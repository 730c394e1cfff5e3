#include "handler_threads/ThreadRecord.h"

#include <pthread.h>
#include <unistd.h>

#include "oswrap/FreeList.h"
#include "oswrap/OutOfMemory.h"

namespace handlerthreads {
namespace {

// A leaf lock. Not an object with a destructor: threads may end while the process exits.
pthread_mutex_t freePlacesMutex = PTHREAD_MUTEX_INITIALIZER;
OSWrap::FreeList<ParkingPlace, &ParkingPlace::nextFree> freePlaces;  // guarded by freePlacesMutex

ParkingPlace* takeFreePlace() {
    pthread_mutex_lock(&freePlacesMutex);
    ParkingPlace* const place = freePlaces.pop();
    pthread_mutex_unlock(&freePlacesMutex);
    return place;
}

}  // namespace

__thread ThreadRecord threadRecord HANDLERTHREADS_TLS = {};

/** The thread that goes on in a forked child is its main thread, under another kernel id. */
[[maybe_unused]] static int const correctsTidInForkedChild =
    pthread_atfork(nullptr, nullptr, [] { threadRecord.tid = getpid(); });

void identifyThread() {
    threadRecord.tid = OSWrap::Thread::getCurrentTid();
    threadRecord.id = OSWrap::Thread::getCurrentId();
}

bool ThreadRecord::reportDue(Misuse kind) {
    unsigned const shift = static_cast<unsigned>(kind);
    unsigned counter = (misuse >> shift) & 3u;
    if (misused && counter <= 2)
        ++counter;
    misused = true;
    misuse = (misuse & ~(3u << shift)) | (counter << shift);
    return counter <= 2;
}

ParkingPlace& ThreadRecord::parkingPlace() {
    if (!place)
        place = takeFreePlace();
    // On the way out of a scope that gave the permission up there is nobody to tell of a failure.
    if (!place)
        OSWrap::untilMemory([this] { place = new ParkingPlace; });
    return *place;
}

void ThreadRecord::giveUpParkingPlace() {
    if (!place)
        return;
    pthread_mutex_lock(&freePlacesMutex);
    freePlaces.push(place);
    pthread_mutex_unlock(&freePlacesMutex);
    place = nullptr;
}

}  // namespace handlerthreads
