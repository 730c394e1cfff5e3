// Work and objects under the run permission.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Waiting.h"
#include "handler_threads.h"
#include "ipprmi.h"
#include "reflect.h"

/** Does something under the run permission. */
template <class Work>
decltype(auto) permitted(Work const& work) {
    TreflectHandlerState const handlerState(true);
    return work();
}

/** Destroys an object under the run permission. */
struct PermittedDelete {
    template <class T>
    void operator()(T* object) const {
        permitted([object] { delete object; });
    }
};

/** An object that is made and destroyed under the run permission, wherever that happens. */
template <class T>
using Permitted = std::unique_ptr<T, PermittedDelete>;

template <class T, class... Arguments>
Permitted<T> makePermitted(Arguments&&... arguments) {
    return permitted([&] { return Permitted<T>(new T(std::forward<Arguments>(arguments)...)); });
}

/** Does something while the thread gives up what it has of the run permission. */
template <class Work>
void released(Work const& work) {
    TreflectReleaseHandlerState const others;  // have their turn
    work();
}

/** An object that does what its test wants when it is called. */
class Acting : public TipprmiObjectSkeleton {
public:
    using Act = std::function<bool(unsigned int method, TipprmiStream& in, TipprmiStream& out)>;

    Acting(std::string const& name, Act act)
        : TipprmiObjectSkeleton(TipprmiOID(name, NSID_UNIT)), act_(std::move(act)) {}
    bool dispatch(bool, unsigned int, unsigned int method, TipprmiStream& in,
                  TipprmiStream& out) override {
        return act_(method, in, out);
    }

private:
    Act const act_;
};

/** Whether nobody holds it any more. */
inline bool permissionGetsFree() {
    return testsupport::eventually(
        [] { return TreflectRunPermission::getRunPermissionOwner() == 0; });
}
/** Whether so many threads, or more, come to queue for it. */
inline bool queueGrowsTo(unsigned long threads) {
    return testsupport::eventually([threads] {
        return TreflectRunPermission::handlerThreads().getPermissionWaiters() >= threads;
    });
}

inline TipprmiOID oid(std::string const& name) {
    return TipprmiOID(name, NSID_UNIT);
}
/** The identifier that a handle carries. */
inline std::string nameOf(TipprmiObjectClient const& handle) {
    TipprmiOID const carried = handle.getStub_()->getOID();
    return carried.getIdString() ? carried.getIdString() : "";
}
