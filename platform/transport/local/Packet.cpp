#include "platform/transport/local/Packet.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

namespace Transport {
namespace {

constexpr std::size_t kMostDescriptors = 2;

union ControlBuffer {
    cmsghdr aligned;
    unsigned char bytes[CMSG_SPACE(kMostDescriptors * sizeof(int))];
};

/** Takes ownership of all descriptors that came with a message. */
void collectDescriptors(msghdr& message, ReceivedPacket& received) {
    for (cmsghdr* head = CMSG_FIRSTHDR(&message); head != nullptr;
         head = CMSG_NXTHDR(&message, head)) {
        if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS)
            continue;
        std::size_t const count = (head->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(head) + i * sizeof(int), sizeof fd);
            Descriptor owned(fd);
            if (!received.file.valid())
                received.file = std::move(owned);
            else if (!received.bell.valid())
                received.bell = std::move(owned);
        }
    }
}

bool makesSense(Packet const& packet, ssize_t length, int flags) {
    return length == static_cast<ssize_t>(sizeof packet) && packet.magic == kMagic &&
           packet.version == kProtocolVersion && packet.layoutCheck == kLayoutCheck &&
           (flags & (MSG_TRUNC | MSG_CTRUNC)) == 0;
}

}  // namespace

Transfer sendPacket(int socket, Packet const& packet, int file, int bell) {
    Packet copy = packet;
    iovec part{&copy, sizeof copy};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    ControlBuffer control{};
    int const descriptors[kMostDescriptors] = {file, bell};
    std::size_t const count = file < 0 ? 0 : bell < 0 ? 1 : 2;
    if (count > 0) {
        message.msg_control = control.bytes;
        message.msg_controllen = CMSG_SPACE(count * sizeof(int));
        cmsghdr* head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(count * sizeof(int));
        std::memcpy(CMSG_DATA(head), descriptors, count * sizeof(int));
    }
    if (::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
        return Transfer::Done;
    return errno == EAGAIN || errno == ENOBUFS || errno == ETOOMANYREFS ? Transfer::Later
                                                                        : Transfer::Closed;
}

Transfer receivePacket(int socket, ReceivedPacket& received) {
    received = ReceivedPacket{};
    iovec part{&received.packet, sizeof received.packet};
    ControlBuffer control{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    ssize_t const length = ::recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (length < 0)
        return errno == EAGAIN || errno == EINTR ? Transfer::Later : Transfer::Closed;
    collectDescriptors(message, received);
    if (length == 0 && message.msg_controllen == 0)
        return Transfer::Closed;
    if ((message.msg_flags & MSG_CTRUNC) != 0)
        raiseDescriptorLimit();
    return makesSense(received.packet, length, message.msg_flags) ? Transfer::Done
                                                                  : Transfer::Garbage;
}

bool peerIdentity(int socket, PeerIdentity& identity) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return false;
    identity = {credentials.pid, credentials.uid};
    return true;
}

}  // namespace Transport
