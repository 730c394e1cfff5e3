#include "handler_threads/HandlerThreads.h"

#include <execinfo.h>

#include "handler_threads/HTUtil.h"
#include "handler_threads/ThreadRecord.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "transport/IdInfo.h"

using handlerthreads::currentThread;
using handlerthreads::Misuse;
using handlerthreads::ThreadRecord;

namespace {

// The first call of `backtrace` loads a library and allocates. A report of misuse comes at a moment
// that may bear neither.
void prepareBacktrace() {
    void* address;
    backtrace(&address, 1);
}

}  // namespace

template <template <class> class Container, template <class> class Permission, class Debugging>
HandlerThreads<Container, Permission, Debugging>::HandlerThreads()
    : threadEndsSeen_(pthread_key_create(&threadEndKey_, releaseOnThreadTermination) == 0) {}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::announce() const {
    prepareBacktrace();
    container_.init(Debugging());
    permission_.init(Debugging());
    init(Debugging());
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::init(Debugging) const {
    REFLECTORB_LOG(4, "REFLECT_orb", "ORB uses HandlerThreads with DEBUG flag set");
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::watchThreadEnd() {
    if (threadEndsSeen_ && pthread_getspecific(threadEndKey_))
        return;
    if (!threadEndsSeen_ || pthread_setspecific(threadEndKey_, this) != 0)
        REFLECTORB_LOG(3, "REFLECT_orb",
                       "ORB cannot watch thread %lu: it must leave handler state before it ends",
                       currentThread().id);
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::enter(bool getPermission) {
    watchThreadEnd();
    container_.add();
    if (getPermission)
        this->getPermission();
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::leave(bool releasePermission) {
    if (releasePermission && hasPermission())
        permission_.release();
    container_.remove();
    if (!hasPermission())
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    ThreadRecord const& me = currentThread();
    REFLECTORB_LOG(3, "REFLECT_orb", "Thread %lu %s has %lu RunPermission after leaveHandlerState",
                   me.id, HTUtil::getName(me.id).c_str(), permission_.count());
    HTUtil::printBacktrace("leaveHandlerState() keeps RunPermission");
    HTUtil::testabort();
    while (hasPermission())
        permission_.release();
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::check() {
    check(Debugging());
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::check(Debugging) {
    ThreadRecord& me = currentThread();
    if (hasPermission() || !me.reportDue(Misuse::RemoteCallWithoutPermission))
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    REFLECTORB_LOG(3, "REFLECT_orb",
                   "%s thread %lu %s doing RMI, but has no RunPermission (owner=%lu)",
                   Transport::IdInfo::instance().getActor().c_str(), me.id,
                   HTUtil::getName(me.id).c_str(), permission_.getOwner());
    HTUtil::printBacktrace("RMI with no RunPermission");
    HTUtil::testabort();
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::getPermission() {
    getPermission(Debugging());
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::getPermission(Debugging) {
    if (retrievePermission())
        return;
    ThreadRecord& me = currentThread();
    if (!me.reportDue(Misuse::GetByNonHandler))
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    REFLECTORB_LOG(4, "REFLECT_orb",
                   "getRunPermission() called by thread %lu %s, which is no handler thread", me.id,
                   HTUtil::getName(me.id).c_str());
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::getPermission(
    handlerthreads::PermissionWaiter& waiter) {
    permission_.get(waiter);
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::queue(
    handlerthreads::PermissionWaiter& waiter) {
    permission_.queue(waiter);
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::leaveQueue(
    handlerthreads::PermissionWaiter& waiter) {
    permission_.leaveQueue(waiter);
}

template <template <class> class Container, template <class> class Permission, class Debugging>
bool HandlerThreads<Container, Permission, Debugging>::enterQueue(
    handlerthreads::PermissionWaiter& waiter) {
    return permission_.enter(waiter);
}

template <template <class> class Container, template <class> class Permission, class Debugging>
bool HandlerThreads<Container, Permission, Debugging>::retrievePermission() {
    if (!isHandler())
        return false;
    permission_.get();
    return true;
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::releasePermission() {
    if (isHandler())
        permission_.release();
}

template <template <class> class Container, template <class> class Permission, class Debugging>
bool HandlerThreads<Container, Permission, Debugging>::isHandler() const {
    return container_.exist();
}

template <template <class> class Container, template <class> class Permission, class Debugging>
bool HandlerThreads<Container, Permission, Debugging>::hasPermission() const {
    return permission_.getOwner() == currentThread().id;
}

template <template <class> class Container, template <class> class Permission, class Debugging>
void HandlerThreads<Container, Permission, Debugging>::releaseOnThreadTermination(void* instance) {
    HandlerThreads* const self = static_cast<HandlerThreads*>(instance);
    if (!self)
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    currentThread().giveUpParkingPlace();
    if (!self->isHandler())
        return;
    while (self->hasPermission())
        self->permission_.release();
    while (self->isHandler())
        self->leave(false);
}

template class DebugPermission<Debugging_t<1>>;
template class HandlerThreads<SetContainer, DebugPermission, Debugging_t<1>>;
