#pragma once

#include <string>

#include "handler_threads.h"
#include "ipprmi.h"

/** Does something under the run permission. */
template <class Work>
decltype(auto) permitted(Work const& work) {
    TreflectHandlerState const handlerState(true);
    return work();
}

inline TipprmiOID oid(std::string const& name) {
    return TipprmiOID(name, NSID_UNIT);
}
