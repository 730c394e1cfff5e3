#include "platform/transport/local/Bell.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace Transport {

bool takeBell(int fd) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    char target[32] = {};
    if (::readlink(path, target, sizeof target - 1) < 0 ||
        std::strcmp(target, "anon_inode:[eventfd]") != 0)
        return false;
    int const flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

Descriptor makeBell() {
    return Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

void ringBell(int fd) {
    std::uint64_t const one = 1;
    // A counter at its limit has been rung already.
    [[maybe_unused]] ssize_t const written = ::write(fd, &one, sizeof one);
}

}  // namespace Transport
