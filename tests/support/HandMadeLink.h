// One end of a channel, made by hand: it does what it is told, and badly if told to.
#pragma once

#include <sys/socket.h>

#include <new>
#include <string>
#include <utility>

#include "OddDescriptors.h"
#include "platform/transport/local/Bell.h"
#include "platform/transport/local/Packet.h"
#include "platform/transport/local/Rendezvous.h"

namespace testsupport {

/** A connection from one termination to another, with what each side has given the other. */
struct HandMadeLink {
    Transport::TerminationId from;
    Transport::TerminationId to;
    Transport::Descriptor socket;
    Transport::OwnSide own;
    Transport::PeerSide peer;
    bool ended = false;  // by the other side

    static HandMadeLink between(Transport::TerminationId from, Transport::TerminationId to,
                                int socket) {
        HandMadeLink link;
        link.from = from;
        link.to = to;
        link.socket = Transport::Descriptor(socket);
        return link;
    }
    Transport::Packet packet(unsigned int kind, std::uint32_t capacity = 0) const {
        return {Transport::kMagic,
                Transport::kProtocolVersion,
                static_cast<std::uint16_t>(kind),
                from.value(),
                to.value(),
                Transport::kLayoutCheck,
                capacity};
    }
    /** False when the other side has hung up. */
    bool send(Transport::Packet const& packet, int file = -1, int bell = -1) const {
        return sendPacket(socket.get(), packet, file, bell) == Transport::Transfer::Done;
    }
    /** What this side gives the other, made but not sent. */
    void makeSide(std::uint32_t capacity = Transport::kSmallestRing) {
        using namespace Transport;
        own = OwnSide::make();
        if (capacity == kSmallestRing || !own.valid())
            return;
        own.file = makeSealedFile(kRingOffset + capacity);
        auto const writable = Mapping::Access::ReadWrite;
        own.control = Mapping::of(own.file.get(), 0, sizeof(ControlPage), writable);
        own.ring.mapping = Mapping::of(own.file.get(), kRingOffset, capacity, writable);
        own.ring.capacity = capacity;
        new (own.control.data()) ControlPage{};
    }
    /** Gives the other what was made. */
    void introduce() const {
        send(packet(Transport::Packet::Hello, own.ring.capacity), own.file.get(), own.bell.get());
    }
    /** Introduces itself, as it should. */
    void sayHello(std::uint32_t capacity = Transport::kSmallestRing) {
        makeSide(capacity);
        introduce();
    }
    /** Takes all packets that are there; waits so long for the first one. */
    void hear(int milliseconds) {
        while (!ended && isReadable(socket.get(), milliseconds)) {
            Transport::ReceivedPacket received;
            Transport::Transfer const transfer = receivePacket(socket.get(), received);
            if (transfer == Transport::Transfer::Later)
                return;
            ended = transfer != Transport::Transfer::Done;
            if (!ended && received.file.valid() && received.bell.valid())
                peer = Transport::PeerSide::of(received);
            milliseconds = 0;
        }
    }
    /** Whether the other side has let us in. */
    bool open(std::uint32_t capacity = Transport::kSmallestRing, int milliseconds = 30'000) {
        sayHello(capacity);
        hear(milliseconds);
        return peer.valid();
    }
    /** Writes into the own ring, whoever has room there or not. */
    void write(std::uint32_t at, void const* bytes, std::size_t size) {
        auto const* const all = static_cast<unsigned char const*>(bytes);
        for (std::size_t i = 0; i < size; ++i)
            own.ring.mapping.data()[(at + i) % own.ring.capacity] = all[i];
    }
    void writeFrame(std::uint32_t at, Transport::FrameHead const& head, std::string const& bytes) {
        write(at, &head, sizeof head);
        write(at + static_cast<std::uint32_t>(sizeof head), bytes.data(), bytes.size());
    }
    std::uint32_t unread() const { return own.page().tail.load() - peer.page().head.load(); }
    /** Puts in one message as it should be; false when there is no room for it. */
    bool put(std::string const& message) {
        auto const size = static_cast<std::uint32_t>(message.size());
        std::uint32_t const frame = Transport::frameBytes(size);
        if (unread() + frame > own.ring.capacity)
            return false;
        std::uint32_t const tail = own.page().tail.load();
        writeFrame(tail, {size, size}, message);
        own.page().tail.store(tail + frame);
        return true;
    }
    void ring() const {
        if (peer.valid())
            Transport::ringDoorBell(peer.bell.get());
    }
};

/** An entry of the rendezvous folder with nobody behind it but who uses it. */
class HandMadeEntry {
public:
    explicit HandMadeEntry(Transport::GroupId group)
        : id_(Transport::Rendezvous::instance().reserve(group, "hand-made")),
          listening_(Transport::Rendezvous::instance().publish(id_)) {}
    ~HandMadeEntry() { Transport::Rendezvous::instance().withdraw(id_); }
    HandMadeEntry(HandMadeEntry const&) = delete;
    HandMadeEntry& operator=(HandMadeEntry const&) = delete;

    Transport::TerminationId id() const { return id_; }
    /** A connection, without a word; its socket is invalid when there is none to be had. */
    HandMadeLink connect(Transport::TerminationId to) const {
        return HandMadeLink::between(id_, to, Transport::Rendezvous::instance().connectTo(to));
    }
    /** The next connection of somebody, waited for so long. */
    HandMadeLink accept(Transport::TerminationId from, int milliseconds) const {
        bool const comes = isReadable(listening_.get(), milliseconds);
        return HandMadeLink::between(
            id_, from, comes ? ::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
    }
    void stopListening() { listening_.reset(); }

private:
    Transport::TerminationId const id_;
    Transport::Descriptor listening_;
};

}  // namespace testsupport
