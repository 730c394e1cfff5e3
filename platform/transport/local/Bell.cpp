#include "platform/transport/local/Bell.h"

#include <sys/eventfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace Transport {
namespace {

/** More rings than any process lives for, and as far from a full counter as from an empty one. */
constexpr std::uint64_t kRings = std::uint64_t{1} << 62;

void add(int fd, std::uint64_t count) {
    // A counter at its limit has been rung already.
    [[maybe_unused]] ssize_t const written = ::write(fd, &count, sizeof count);
}

}  // namespace

Descriptor makeBell() {
    return Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

void ringBell(int fd) {
    add(fd, 1);
}

Descriptor makeDoorBell() {
    Descriptor bell(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
    if (bell.valid())
        add(bell.get(), kRings);
    return bell;
}

void ringDoorBell(int fd) {
    std::uint64_t count = 0;
    iovec part{&count, sizeof count};
    // EAGAIN: its owner has emptied it, and will not hear it. Otherwise the kernel cannot do this;
    // zero fits in whatever a writer has made of the counter, and wakes all the same.
    if (::preadv2(fd, &part, 1, -1, RWF_NOWAIT) < 0 && errno != EAGAIN)
        add(fd, 0);
}

bool takeDoorBell(int fd) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    char target[32] = {};
    return ::readlink(path, target, sizeof target - 1) >= 0 &&
           std::strcmp(target, "anon_inode:[eventfd]") == 0;
}

}  // namespace Transport
