#pragma once

#include <new>

#include "oswrap/Export.h"

namespace OSWrap {

/** For a thread of the library's own that has run out of memory and has nobody to tell: a log line,
 * of which there is one a second at most, and a pause of 10 ms. */
REFLECTORB_API void awaitMemory();

/** Runs `code`; false when memory ran out in it. */
template <class Code>
bool withMemory(Code const& code) {
    try {
        code();
        return true;
    } catch (std::bad_alloc const&) {
        return false;
    }
}

/** Runs `code`, which may be begun anew, until memory suffices for it. For threads of the library's
 * own, with no lock held. */
template <class Code>
void untilMemory(Code const& code) {
    while (!withMemory(code))
        awaitMemory();
}

}  // namespace OSWrap
