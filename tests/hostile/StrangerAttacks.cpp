// By those who connect, and have not been checked yet.

#include "Field.h"
#include "LingeringFile.h"

namespace hostile {
namespace {

using testsupport::bytesOf;
using testsupport::sendWith;

void connectAndLeave(Field& field) {
    Victim const victim = field.victim();
    for (int i = 0; i < 100; ++i)
        field.connect(victim);
}

/** More than a victim hears at a time; some say Hello later. */
void sayNothing(Field& field) {
    for (int i = 0; i < 8; ++i) {
        HandMadeLink link = field.connect(field.victim());
        link.from = field.entry().id();
        if (field.dice(4) == 0)
            link.sayHello();
        field.keep(std::move(link), 100);
    }
}

void sendGarbage(Field& field) {
    for (int i = 0; i < 8; ++i) {
        HandMadeLink const link = field.connect(field.victim());
        for (unsigned int left = field.dice(10); left > 0; --left) {
            std::string const bytes = field.noise(field.dice(4) == 0 ? field.dice(9000) : 24);
            ::send(link.socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        }
    }
}

/** In the name of others, to others, of other versions. */
void forgeHello(Field& field) {
    HandMadeLink link = field.connect(field.victim());
    link.makeSide();
    link.from = field.entry().id();
    Packet hello = link.packet(Packet::Hello, Transport::kSmallestRing);
    switch (field.dice(7)) {
        case 0:
        case 1:
            hello.from = field.victim().id.value();
            break;
        case 2:
            hello.from = field.number();
            break;
        case 3:
            hello.to = field.victim().id.value() ^ field.dice(3);
            break;
        case 4:
            hello.version ^= static_cast<std::uint16_t>(field.number());
            break;
        case 5:
            hello.layoutCheck ^= field.number();
            break;
        default:
            hello.kind = static_cast<std::uint16_t>(field.dice(9));
            break;
    }
    link.send(hello, link.own.file.get(), link.own.bell.get());
    link.hear(20);
}

/** Memory that is not sealed or of another size, and things that are neither memory nor bell. */
void giveOddSide(Field& field) {
    HandMadeLink link = field.connect(field.victim());
    link.makeSide();
    link.from = field.entry().id();
    std::uint32_t const capacities[] = {Transport::kSmallestRing, 0, Transport::kSmallestRing + 8,
                                        Transport::kLargestRing, 0x80000000u};
    std::uint32_t const capacity = capacities[field.dice(5)];
    Descriptor const file = testsupport::oddFile(field.number(), capacity + Transport::kRingOffset,
                                                 link.own.file.get());
    Descriptor const bell = testsupport::oddBell(field.number(), link.own.bell.get());
    link.send(link.packet(Packet::Hello, capacity), file.get(), bell.get());
    link.hear(20);
}

// ---- Descriptors

/** Files whose `close` waits: before Hello, as Hello, in packets that are not read any more, and
 * on a channel that stands. */
void passLingering(Field& field) {
    Victim const victim = field.victim();
    unsigned int const way = field.dice(5);
    HandMadeLink link = way < 3 ? field.connect(victim) : field.open(victim);
    link.from = field.entry().id();
    require(!link.ended, "nobody lets it in");
    if (!link.own.valid())
        link.makeSide();
    LingeringFile const lingering(field.dice(5));
    int const passed = lingering.get();
    if (way == 0)
        sendWith(link.socket.get(), field.noise(24), {passed, passed});
    if (way == 1)
        link.send(link.packet(Packet::Hello, Transport::kSmallestRing), passed, passed);
    if (way == 2)
        link.send(link.packet(Packet::Hello, Transport::kSmallestRing), link.own.file.get(),
                  passed);
    if (way == 3)
        link.send(link.packet(Packet::NextRing, Transport::kSmallestRing), passed);
    // The first packet closes the connection: nobody reads these.
    for (int i = 0; way != 4 && i < 5; ++i)
        sendWith(link.socket.get(), bytesOf(link.packet(Packet::Bye)), {passed});
    if (way == 4)
        sendWith(link.socket.get(), bytesOf(link.packet(Packet::Stay)), {passed, passed});
    field.keep(std::move(link), 4);
}

/** More than a packet has room for, and as many under way as the kernel lets there be. */
void passMany(Field& field) {
    static std::deque<testsupport::SocketPair> underWay;
    Descriptor const something(::open("/dev/null", O_RDWR | O_CLOEXEC));
    std::vector<int> const many(250, something.get());
    HandMadeLink link =
        field.dice(2) == 0 ? field.connect(field.victim()) : field.open(field.victim());
    require(!link.ended, "nobody lets it in");
    link.from = field.entry().id();
    for (int i = 0; i < 4; ++i)
        sendWith(link.socket.get(), bytesOf(link.packet(field.dice(9))), many);
    underWay.emplace_back();
    for (int i = 0; i < 20; ++i)
        sendWith(underWay.back().near.get(), "x", many);
    if (underWay.size() > 10)
        underWay.pop_front();
}

}  // namespace

Attacks strangerAttacks() {
    return {{"connects", "connects and leaves, a hundred times a round", connectAndLeave},
            {"halves", "connects and says nothing for long", sayNothing},
            {"garbage", "sends packets of noise", sendGarbage},
            {"forged", "says Hello in the name of others, or to others", forgeHello},
            {"sides", "gives memory and bells that are none", giveOddSide},
            {"linger", "passes files whose close waits, within sockets, too", passLingering},
            {"pressure", "passes thousands of descriptors", passMany}};
}

}  // namespace hostile
