#include "platform/transport/local/HiddenName.h"

#include <sys/random.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>

#include "oswrap/Clock.h"

namespace Transport {

std::string unforeseenDigits() {
    std::uint64_t number = 0;
    // A kernel that has only just started has none yet.
    if (::getrandom(&number, sizeof number, GRND_NONBLOCK) != sizeof number)
        number = static_cast<std::uint64_t>(OSWrap::Clock::nowNanoseconds());
    char digits[kUnforeseenDigits + 1];
    std::snprintf(digits, sizeof digits, "%016" PRIx64, number);
    return digits;
}

std::string hiddenName(std::string const& head) {
    return kHiddenPrefix + head + ".pid" + std::to_string(::getpid()) + "." + unforeseenDigits();
}

}  // namespace Transport
