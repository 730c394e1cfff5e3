#include "platform/transport/local/Descriptor.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>

#include "platform/transport/DelayedLog.h"

namespace Transport {
namespace {

constexpr char const* kSource = "Descriptor";
constexpr rlim_t kEnoughDescriptors = 65'536;

}  // namespace

bool raiseDescriptorLimit() {
    struct rlimit limit {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    rlim_t const wanted = std::min(limit.rlim_max, kEnoughDescriptors);
    if (limit.rlim_cur >= wanted)
        return false;
    rlim_t const before = std::exchange(limit.rlim_cur, wanted);
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    TRANSPORT_LOG(5, kSource, "limit of open descriptors raised from %llu to %llu",
                  static_cast<unsigned long long>(before), static_cast<unsigned long long>(wanted));
    return true;
}

}  // namespace Transport
