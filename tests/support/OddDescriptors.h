// Sockets, memory and bells as those have them who follow no rules.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/transport/local/ChannelSides.h"

namespace testsupport {

inline bool isReadable(int fd, int milliseconds) {
    pollfd poll{fd, POLLIN, 0};
    return ::poll(&poll, 1, milliseconds) == 1;
}

/** A descriptor that no file of shared memory is: `which` chooses the way, `good` is one. */
inline Transport::Descriptor oddFile(unsigned int which, std::uint32_t capacity, int good) {
    using namespace Transport;
    switch (which % 7) {
        case 0:
            return Descriptor(::fcntl(good, F_DUPFD_CLOEXEC, 0));
        case 1:
            return makeSealedFile(capacity % (2 * kLargestRing));
        case 2:
            return makeSealedFile(kRingOffset + kSmallestRing - 1);
        case 3: {  // can be cut short at any time
            Descriptor file(::memfd_create("unsealed", MFD_CLOEXEC));
            if (::ftruncate(file.get(), kRingOffset + kSmallestRing) != 0)
                std::abort();
            return file;
        }
        case 4:
            return Descriptor(::open("/dev/null", O_RDWR | O_CLOEXEC));
        case 5:
            return Descriptor();
        default:
            return Descriptor(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
}

/** Makes its counter so full that nothing more goes in, and has whoever adds to it wait. */
inline void blockBell(int bell) {
    ::fcntl(bell, F_SETFL, ::fcntl(bell, F_GETFL) | O_NONBLOCK);
    for (std::uint64_t step = std::uint64_t{1} << 63; step != 0; step /= 2)
        while (::write(bell, &step, sizeof step) > 0) {
        }
    ::fcntl(bell, F_SETFL, ::fcntl(bell, F_GETFL) & ~O_NONBLOCK);
}

/** The same as `oddFile` for a bell. */
inline Transport::Descriptor oddBell(unsigned int which, int good) {
    using namespace Transport;
    switch (which % 5) {
        case 0:
            return Descriptor(::fcntl(good, F_DUPFD_CLOEXEC, 0));
        case 1: {  // it could block whoever rings it
            Descriptor full(::eventfd(0, EFD_CLOEXEC));
            blockBell(full.get());
            return full;
        }
        case 2:
            return Descriptor(::open("/dev/null", O_RDWR | O_CLOEXEC));
        case 3:
            return Descriptor();
        default: {
            int ends[2];
            if (::pipe2(ends, O_CLOEXEC) != 0)
                std::abort();
            ::close(ends[0]);
            return Descriptor(ends[1]);
        }
    }
}

inline sockaddr_un addressOf(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/** A socket that has a name, and does not listen; invalid when that cannot be. */
inline Transport::Descriptor socketAt(std::string const& path) {
    sockaddr_un const address = addressOf(path);
    Transport::Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (path.size() >= sizeof address.sun_path ||
        ::bind(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0)
        socket.reset();
    return socket;
}

/** Takes all descriptors that this process may still have, but a few. */
class NoDescriptors {
public:
    explicit NoDescriptors(std::size_t left = 0) {
        ::getrlimit(RLIMIT_NOFILE, &former_);
        rlimit const low{256, 256};
        ::setrlimit(RLIMIT_NOFILE, &low);
        for (int fd = 0; fd >= 0;) {
            fd = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
            taken_.emplace_back(fd);
        }
        taken_.resize(taken_.size() - std::min(taken_.size(), left + 1));  // the last has none
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &former_); }

private:
    rlimit former_{};
    std::vector<Transport::Descriptor> taken_;
};

/** Two ends of a connection of the channels' kind. */
struct SocketPair {
    explicit SocketPair(int type = SOCK_SEQPACKET) {
        int ends[2] = {-1, -1};
        static_cast<void>(!::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends));
        near = Transport::Descriptor(ends[0]);
        far = Transport::Descriptor(ends[1]);
    }
    Transport::Descriptor near;
    Transport::Descriptor far;
};

/** Sends bytes with any number of descriptors; whether that worked. */
inline bool sendWith(int socket, std::string const& bytes, std::vector<int> const& descriptors) {
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    std::vector<unsigned char> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
    std::memcpy(CMSG_DATA(head), descriptors.data(), descriptors.size() * sizeof(int));
    return ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
}
inline std::string bytesOf(Transport::Packet const& packet) {
    return {reinterpret_cast<char const*>(&packet), sizeof packet};
}

}  // namespace testsupport
