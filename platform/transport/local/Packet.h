#pragma once

#include <sys/types.h>

#include <cstdint>
#include <type_traits>

#include "platform/transport/local/Descriptor.h"
#include "platform/transport/local/Ring.h"

namespace Transport {

/**
 * What the two sides of a channel tell each other over their socket, one packet at a time. The
 * messages themselves go through the rings.
 *
 * | kind | sent by | with it go | meaning |
 * |---|---|---|---|
 * | Hello | who connects | memory file, bell | introduces itself and asks for a channel |
 * | Welcome | who accepts | memory file, bell | the channel stands |
 * | Crossed | who accepts | | use the channel that I am asking you for |
 * | NextRing | either | memory file | my ring goes on in this file where it says so |
 * | Bye | either | | nothing has happened for long; I send no more unless you say Stay |
 * | Stay | answer to Bye | | there is something that you have not read |
 * | Left | answer to Bye | | I have read all of yours, read all of mine and close |
 *
 * | offset | width | field |
 * |---|---|---|
 * | 0 | 4 | kMagic |
 * | 4 | 2 | kProtocolVersion |
 * | 6 | 2 | kind |
 * | 8 | 4 | the sender's termination id |
 * | 12 | 4 | the receiver's termination id |
 * | 16 | 4 | kLayoutCheck |
 * | 20 | 4 | capacity of the ring in the file that goes with it, else 0 |
 *
 * All in the machine's byte order: a channel never leaves it.
 */
struct Packet {
    enum Kind : std::uint16_t { Hello = 1, Welcome, Crossed, NextRing, Bye, Stay, Left };

    std::uint32_t magic;
    std::uint16_t version;
    std::uint16_t kind;
    std::uint32_t from;
    std::uint32_t to;
    std::uint32_t layoutCheck;
    std::uint32_t ringCapacity;
};
static_assert(sizeof(Packet) == 24 && std::is_trivially_copyable_v<Packet>,
              "exchanged by processes of any word size");

constexpr std::uint32_t kMagic = 0x52'4F'43'48;
constexpr std::uint16_t kProtocolVersion = 3;
/** Tells builds apart that would not understand each other's rings. */
constexpr std::uint32_t kLayoutCheck =
    static_cast<std::uint32_t>(offsetof(ControlPage, head)) << 24 |
    static_cast<std::uint32_t>(offsetof(ControlPage, asleep)) << 16 |
    static_cast<std::uint32_t>(sizeof(FrameHead)) << 12 |
    static_cast<std::uint32_t>(kRingOffset >> 10);

/** A packet with the descriptors that came with it, those absent invalid. */
struct ReceivedPacket {
    Packet packet{};
    PassedDescriptor file;
    PassedDescriptor bell;
};

enum class Transfer {
    Done,
    Later,      // nothing has come, or nothing can be sent now
    Exhausted,  // what has come brings descriptors, and this process has none left: it waits there
    Behind,     // likewise, but so much of its process waits to be closed that no more is taken in
    Closed,
    Garbage,
};

/** Sends one packet and up to two descriptors (-1: none). Never blocks and raises no signal. */
Transfer sendPacket(int socket, Packet const& packet, int file = -1, int bell = -1);
/** Looks at the next packet of right size, magic, version and layout, and leaves it there with all
 * that it brings. Never blocks. */
Transfer peekPacket(int socket, Packet& packet);
/** Receives one packet of right size, magic, version and layout; only from whom `peerIdentity` has
 * proved to be one of us, since it takes in descriptors. Never blocks. */
Transfer receivePacket(int socket, ReceivedPacket& received);
/** Whether nothing is in a connected socket that has been shut down, nor will be. Never blocks. */
bool isEmpty(int socket);
/** Empties a socket that has been shut down, as long as the process that it came from may have more
 * descriptors closed here. May block. */
void dropPackets(int socket, pid_t from);

/** The process at the other end of a unix socket, as the kernel knows it. */
struct PeerIdentity {
    pid_t process;
    uid_t user;
};
/** False when the kernel does not tell. */
bool peerIdentity(int socket, PeerIdentity& identity);
/** Whether the other end is closed, also while what has come before that is still unread. */
bool hasHungUp(int socket);

}  // namespace Transport
