#include "handler_threads/TreflectRunPermission.h"

#include <pthread.h>

#include <atomic>
#include <new>

namespace {

std::atomic<TreflectHandlerThreads*> theInstance{nullptr};
// Guards the creation only; nothing is locked or logged under it.
pthread_mutex_t creationMutex = PTHREAD_MUTEX_INITIALIZER;
// Static, so that creation cannot fail and the object outlives everybody.
alignas(TreflectHandlerThreads) unsigned char theStorage[sizeof(TreflectHandlerThreads)];

}  // namespace

TreflectHandlerThreads& TreflectRunPermission::handlerThreads() {
    TreflectHandlerThreads* const instance = theInstance.load(std::memory_order_acquire);
    return instance ? *instance : create();
}

TreflectHandlerThreads& TreflectRunPermission::create() {
    pthread_mutex_lock(&creationMutex);
    TreflectHandlerThreads* instance = theInstance.load(std::memory_order_relaxed);
    bool const first = !instance;
    if (first) {
        instance = new (theStorage) TreflectHandlerThreads;
        theInstance.store(instance, std::memory_order_release);
    }
    pthread_mutex_unlock(&creationMutex);
    // A log sink may come back here.
    if (first)
        instance->announce();
    return *instance;
}

void TreflectRunPermission::enterHandlerState(bool getPermission) {
    handlerThreads().enter(getPermission);
}

void TreflectRunPermission::leaveHandlerState(bool releasePermission) {
    handlerThreads().leave(releasePermission);
}

void TreflectRunPermission::checkHandlerState() {
    handlerThreads().check();
}

void TreflectRunPermission::getRunPermission() {
    handlerThreads().getPermission();
}

void TreflectRunPermission::releaseRunPermission() {
    handlerThreads().releasePermission();
}

bool TreflectRunPermission::hasRunPermission() {
    return handlerThreads().hasPermission();
}

bool TreflectRunPermission::isHandlerThread() {
    return handlerThreads().isHandler();
}

unsigned long TreflectRunPermission::getRunPermissionCount() {
    return handlerThreads().getPermissionCount();
}

unsigned long TreflectRunPermission::getRunPermissionOwner() {
    return handlerThreads().getPermissionOwner();
}
