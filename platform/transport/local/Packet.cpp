#include "platform/transport/local/Packet.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include "platform/transport/local/Hurry.h"

namespace Transport {
namespace {

constexpr std::size_t kMostDescriptors = 2;
/** The kernel takes no more with one packet. */
constexpr std::size_t kMostPassed = 253;

template <std::size_t Count>
union ControlBuffer {
    cmsghdr aligned;
    // With the credentials that dropPackets asks for.
    unsigned char bytes[CMSG_SPACE(Count * sizeof(int)) + CMSG_SPACE(sizeof(ucred))];
};

/** All that came with a message. */
template <class Action>
void forEachDescriptor(msghdr& message, Action const& action) {
    for (cmsghdr* head = CMSG_FIRSTHDR(&message); head != nullptr;
         head = CMSG_NXTHDR(&message, head)) {
        if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS)
            continue;
        std::size_t const count = (head->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(head) + i * sizeof(int), sizeof fd);
            action(fd);
        }
    }
}

std::size_t countFiles(msghdr& message) {
    std::size_t count = 0;
    forEachDescriptor(message, [&](int fd) { count += isPassedFile(fd) ? 1 : 0; });
    return count;
}

/** Takes ownership of all descriptors that came with a message; false when there are too many. */
bool collectDescriptors(msghdr& message, ReceivedPacket& received, pid_t from) {
    bool allExpected = true;
    forEachDescriptor(message, [&](int fd) {
        PassedDescriptor owned(fd, from);
        if (!received.file.valid())
            received.file = std::move(owned);
        else if (!received.bell.valid())
            received.bell = std::move(owned);
        else
            allExpected = false;
    });
    return allExpected;
}

bool makesSense(Packet const& packet, ssize_t length, int flags) {
    return length == static_cast<ssize_t>(sizeof packet) && packet.magic == kMagic &&
           packet.version == kProtocolVersion && packet.layoutCheck == kLayoutCheck &&
           (flags & MSG_TRUNC) == 0;
}

Transfer failure() {
    return errno == EAGAIN || errno == EINTR || errno == ENOMEM || errno == ENOBUFS
               ? Transfer::Later
               : Transfer::Closed;
}

/** As `recvmsg`, without waiting. When the peer has ended and not read all of ours, the kernel
 * tells that once, before what it has sent. */
ssize_t receive(int socket, msghdr& message, int flags) {
    ssize_t const length = ::recvmsg(socket, &message, MSG_DONTWAIT | flags);
    return length < 0 && errno == ECONNRESET ? ::recvmsg(socket, &message, MSG_DONTWAIT | flags)
                                             : length;
}

/** The header of a message of one packet. */
struct PacketHeader : msghdr {
    explicit PacketHeader(Packet& packet) : msghdr{}, part{&packet, sizeof packet} {
        msg_iov = &part;
        msg_iovlen = 1;
    }
    PacketHeader(Packet& packet, void* control, std::size_t controlBytes) : PacketHeader(packet) {
        msg_control = control;
        msg_controllen = static_cast<decltype(msg_controllen)>(controlBytes);
    }
    PacketHeader(PacketHeader const&) = delete;
    PacketHeader& operator=(PacketHeader const&) = delete;

    iovec part;
};

/** As peekPacket; `passes`: descriptors come with it. */
Transfer peek(int socket, Packet& packet, bool& passes) {
    PacketHeader message(packet);
    ssize_t const length = receive(socket, message, MSG_PEEK);
    if (length < 0)
        return failure();
    passes = (message.msg_flags & MSG_CTRUNC) != 0;
    if (length == 0 && !passes)
        return Transfer::Closed;
    return makesSense(packet, length, message.msg_flags) ? Transfer::Done : Transfer::Garbage;
}

/** Copies of the descriptors that come with the packet that has been looked at, and stays. */
Transfer copyDescriptors(int socket, ReceivedPacket& received, pid_t from) {
    ControlBuffer<kMostDescriptors> control{};
    PacketHeader message(received.packet, control.bytes,
                         CMSG_SPACE(kMostDescriptors * sizeof(int)));
    if (receive(socket, message, MSG_PEEK | MSG_CMSG_CLOEXEC) < 0)
        return failure();
    collectDescriptors(message, received, from);
    if ((message.msg_flags & MSG_CTRUNC) == 0)
        return Transfer::Done;
    return received.bell.valid() ? Transfer::Garbage
                                 : Transfer::Exhausted;  // too many; no more left
}

/** Takes out the packet that has been looked at. */
Transfer discard(int socket) {
    Packet packet;
    PacketHeader message(packet);
    return receive(socket, message, 0) < 0 ? failure() : Transfer::Done;
}

/** Of which no part is empty: nothing is its end, whatever comes with it. */
bool isStream(int socket) {
    int type = 0;
    socklen_t length = sizeof type;
    return ::getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

/** Takes out the next packet, whatever it is, and drops it; false when there is none, or no room
 * for what it may bring. For what finds no room or no descriptor while it comes, the kernel does
 * not wait. */
bool drop(int socket, pid_t from) {
    ExpectedFiles expected(from, kMostPassed);
    if (expected.count() == 0)
        return false;
    ReceivedPacket dropped;
    ControlBuffer<kMostPassed> control{};
    PacketHeader message(dropped.packet, control.bytes,
                         CMSG_SPACE(expected.count() * sizeof(int)) + CMSG_SPACE(sizeof(ucred)));
    ssize_t const length = [&] {
        Hurry const hurry;
        return receive(socket, message, MSG_CMSG_CLOEXEC);
    }();
    if (length < 0)
        return false;
    expected.shrinkTo(countFiles(message));
    collectDescriptors(message, dropped, from);
    return length != 0 || (message.msg_controllen != 0 && !isStream(socket));
}

/** Credentials come with each packet then, which tells one of no bytes from the end. */
void tellEmptyOnes(int socket) {
    int const yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes);
}

}  // namespace

Transfer sendPacket(int socket, Packet const& packet, int file, int bell) {
    Packet copy = packet;
    PacketHeader message(copy);
    ControlBuffer<kMostDescriptors> control{};
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
    auto const send = [&] { return ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL); };
    if (send() >= 0)
        return Transfer::Done;
    if (errno != ETOOMANYREFS)
        return failure();
    // More descriptors of this user are on their way somewhere than this process may have.
    return raiseDescriptorLimit() && send() >= 0 ? Transfer::Done : Transfer::Later;
}

Transfer peekPacket(int socket, Packet& packet) {
    bool passes = false;
    return peek(socket, packet, passes);
}

Transfer receivePacket(int socket, ReceivedPacket& received) {
    received = ReceivedPacket{};
    bool passes = false;
    Transfer const seen = peek(socket, received.packet, passes);
    if (seen != Transfer::Done)
        return seen;
    if (passes) {
        PeerIdentity peer{};
        peerIdentity(socket, peer);
        if (closersBehind(peer.process))
            return Transfer::Behind;
        if (!descriptorsLeft(socket, kMostDescriptors))
            return Transfer::Exhausted;
        Transfer const copied = copyDescriptors(socket, received, peer.process);
        if (copied != Transfer::Done)
            return copied;
    }
    // What the kernel closes with it, in our name, has been copied: it is never the last to do so.
    return discard(socket);
}

bool isEmpty(int socket) {
    tellEmptyOnes(socket);
    char byte = 0;
    iovec part{&byte, sizeof byte};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return receive(socket, message, MSG_PEEK) == 0 && (message.msg_flags & MSG_CTRUNC) == 0;
}

void dropPackets(int socket, pid_t from) {
    tellEmptyOnes(socket);
    while (drop(socket, from)) {
    }
}

bool peerIdentity(int socket, PeerIdentity& identity) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return false;
    identity = {credentials.pid, credentials.uid};
    return true;
}

bool hasHungUp(int socket) {
    pollfd looked{socket, POLLRDHUP, 0};
    return ::poll(&looked, 1, 0) != 0;
}

}  // namespace Transport
