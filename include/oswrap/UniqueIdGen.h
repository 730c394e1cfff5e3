#pragma once

#include <atomic>

#include "oswrap/Export.h"

namespace OSWrap {

/** Hands out numbers that are unique within the process until 2^32 of them have been used. */
class REFLECTORB_API UniqueIdGen {
public:
    static UniqueIdGen& instance();
    /** Never 0. Any thread. */
    unsigned int getId();

private:
    std::atomic<unsigned int> last_{0};
};

}  // namespace OSWrap
