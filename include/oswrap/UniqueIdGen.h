#pragma once

#include <atomic>

#include "oswrap/Export.h"

namespace OSWrap {

/** Hands out numbers that are unique within the process until 2^32 of them have been used. Where
 * they begin differs from one start of a process to the next. */
class REFLECTORB_API UniqueIdGen {
public:
    /** The one of this process, made on first use. Any thread. */
    static UniqueIdGen& instance();
    /** Never 0. Any thread. */
    unsigned int getId();

private:
    UniqueIdGen();

    std::atomic<unsigned int> last_;
};

}  // namespace OSWrap
