#include "platform/transport/local/Descriptor.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/transport/DelayedLog.h"

namespace Transport {
namespace {

constexpr char const* kSource = "Descriptor";
constexpr rlim_t kEnoughDescriptors = 65'536;

constexpr int kMostAsked = 12;

bool canHave(int fd, int count) {
    Descriptor copies[kMostAsked];
    for (int i = 0; i < count; ++i) {
        copies[i] = Descriptor(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
        if (!copies[i].valid())
            return false;
    }
    return true;
}

}  // namespace

void closeAtOnce(int fd) {
    ::close(fd);
}

bool descriptorsLeft(int fd, int count) {
    return canHave(fd, count) || (raiseDescriptorLimit() && canHave(fd, count));
}

std::size_t mostDescriptors() {
    struct rlimit limit {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<std::size_t>(
        std::max(limit.rlim_cur, std::min(limit.rlim_max, kEnoughDescriptors)));
}

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
