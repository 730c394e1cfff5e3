#include "oswrap/UniqueIdGen.h"

#include <unistd.h>

#include "oswrap/Clock.h"

namespace OSWrap {

// Ids travel in messages. A start that depends on process and time keeps those of a process and of
// its successor apart; the factor (2^32 divided by the golden ratio) spreads neighbouring values.
UniqueIdGen::UniqueIdGen()
    : last_(static_cast<unsigned int>((static_cast<unsigned long long>(Clock::nowNanoseconds()) ^
                                       static_cast<unsigned long long>(getpid()) << 16) *
                                          0x9E3779B9U >>
                                      8)) {}

UniqueIdGen& UniqueIdGen::instance() {
    static UniqueIdGen generator;  // has nothing to destroy
    return generator;
}

unsigned int UniqueIdGen::getId() {
    for (;;)
        if (unsigned int const id = last_.fetch_add(1, std::memory_order_relaxed) + 1)
            return id;
}

}  // namespace OSWrap
