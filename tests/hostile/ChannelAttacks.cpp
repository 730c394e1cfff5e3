// By those who have a channel, and spoil what the two sides share.

#include "Field.h"
#include "LingeringFile.h"

namespace hostile {
namespace {

using namespace Transport;

/** Does something over a channel, where a victim wants one. */
template <void (*act)(Field&, HandMadeLink&), std::uint32_t capacity = kSmallestRing>
void overChannel(Field& field) {
    HandMadeLink link = field.open(field.victim(), capacity);
    require(!link.ended, "nobody lets it in");
    act(field, link);
}

void lieInWords(Field& field, HandMadeLink& link) {
    ControlPage& page = link.own.page();
    for (int i = 0; i < 8; ++i) {
        std::atomic<std::uint32_t>* const words[] = {&page.tail, &page.head, &page.asleep,
                                                     &page.wantsSpace};
        words[field.dice(4)]->store(field.dice(2) == 0 ? field.number() : field.number() & ~7u);
        link.ring();
        link.hear(field.dice(2) == 0 ? 1 : 0);
    }
}

/** One that is wrong behind some that are right. */
void lieInFrames(Field& field, HandMadeLink& link) {
    for (unsigned int right = field.dice(4); right > 0; --right)
        link.put(field.noise(field.dice(100)));
    FrameHead const wrong[] = {{100, 8},
                               {0, kNextRing},
                               {8, kNextRing},
                               {0xFFFFFFF8u, 0xFFFFFFF8u},
                               {0xFFFFFFFFu, 0xFFFFFFFFu},
                               {0, 100},
                               {kSmallestRing, kSmallestRing},
                               {8, 16 * 1024 * 1024},
                               {8, 16 * 1024 * 1024 + 1},
                               {8, Transport::kSentBack | 8},
                               {100, Transport::kSentBack | 8},
                               {field.number(), field.number()}};
    std::uint32_t const tail = link.own.page().tail.load();
    link.writeFrame(tail, wrong[field.dice(std::size(wrong))], field.noise(1000));
    link.own.page().tail.store(tail + (field.dice(2) == 0 ? 16 : field.number() & ~7u));
    link.ring();
    link.hear(5);
}

/** A ring full of frames of so many bytes, again and again. */
template <std::uint32_t length>
void flood(Field&, HandMadeLink& link) {
    std::uint32_t const frame = frameBytes(length);
    for (std::uint32_t at = 0; at + frame <= kLargestRing; at += frame)
        link.writeFrame(at, {length, length}, {});
    for (int i = 0; i < 4 && !link.ended; ++i) {
        link.own.page().tail.fetch_add(kLargestRing / frame * frame);
        link.ring();
        for (int left = 200; left > 0 && !link.ended && link.unread() != 0; --left)
            link.hear(1);
    }
}

/** Everything that a ring can hold, and the end at once. */
void closeOnMany(Field& field, HandMadeLink& link) {
    for (std::uint32_t at = 0; at < kLargestRing; at += 8)
        link.writeFrame(at, {0, 0}, {});
    link.own.page().tail.store(kLargestRing);
    if (field.dice(2) == 0)
        link.send(link.packet(field.dice(2) == 0 ? Packet::Left : Packet::Bye));
}

/** Takes the channel's bells back into blocking mode, their counters full, so that whoever rings
 * them next might wait; has the victim ring all the time. */
void blockBells(Field& field, HandMadeLink& link) {
    for (int i = 0; i < 30 && !link.ended; ++i) {
        for (int const bell : {link.own.bell.get(), link.peer.bell.get()}) {
            if (i % 10 == 0)
                testsupport::blockBell(bell);
            ::fcntl(bell, F_SETFL, O_RDWR);
        }
        link.own.page().asleep.fetch_add(1);
        link.own.page().wantsSpace.fetch_add(1);
        link.put(message(field.number(), counters, request, ""));
        link.ring();
        link.hear(1);
        link.own.page().head.store(link.peer.page().tail.load());
    }
}

/** Has the victim send back bytes that look like frames, in rings that grow, and says that it has
 * taken them up to the middle of one. */
void lieInMidFrame(Field& field) {
    Victim const victim = field.victim();
    HandMadeLink link = field.open(victim, kLargestRing);
    std::uint32_t const object = link.ended ? 0 : objectOf(link, victim, field.number());
    require(object != 0, "nobody lets it in");
    std::uint32_t const start = link.own.page().head.load();
    std::uint32_t const length = field.dice(2) == 0 ? 100'000 : 8 * field.dice(30'000);
    std::string lie;
    for (int i = 0; i < 1400; ++i)
        lie.append(reinterpret_cast<char const*>(&length), sizeof length);
    for (int i = 0; i < 60; ++i)
        link.put(call(field.number(), request, object, kEcho, text(lie)));
    link.ring();
    for (int left = 50; left > 0 && link.peer.page().tail.load() - start < 200'000; --left)
        link.hear(2);
    link.own.page().head.store(start + 8 * (1 + field.dice(600)));
    if (field.dice(2) == 0)
        link.send(link.packet(Packet::Welcome));  // and is closed for it
}

void growOddly(Field& field, HandMadeLink& link) {
    std::uint32_t const capacities[] = {kUsualRing, kLargestRing, kSmallestRing, 24, 0x80000000u};
    for (unsigned int count = field.dice(8); count > 0; --count) {
        std::uint32_t const capacity = capacities[field.dice(5)];
        Descriptor const good = makeSealedFile(capacity % (2 * kLargestRing));
        Descriptor const file = field.dice(3) == 0
                                    ? testsupport::oddFile(field.number(), capacity, good.get())
                                    : Descriptor(::fcntl(good.get(), F_DUPFD_CLOEXEC, 0));
        link.send(link.packet(Packet::NextRing, capacity), file.get());
    }
    std::uint32_t tail = link.own.page().tail.load();
    for (unsigned int count = field.dice(8); count > 0; --count, tail += 8)
        link.writeFrame(tail, {0, kNextRing}, {});
    link.own.page().tail.store(tail);
    link.ring();
    link.hear(5);
}

/** Words of the end, in any order. */
void talkMuch(Field& field, HandMadeLink& link) {
    for (int i = 0; i < 200 && !link.ended; ++i) {
        unsigned int const kinds[] = {Packet::Bye,     Packet::Stay, Packet::Bye,     Packet::Stay,
                                      Packet::Crossed, Packet::Left, Packet::Welcome, 0};
        link.send(link.packet(kinds[field.dice(i < 150 ? 4 : 8)]));
        if (i % 16 == 0) {
            link.put(message(field.number(), counters, request, ""));
            link.ring();
            link.hear(1);
        }
    }
}

/** Leaves before the answer, so that the victim connects, and is a bad host then. */
void hostBadly(Field& field, HandMadeLink& link) {
    for (int i = 0; i < 4; ++i)
        link.put(message(field.number(), counters, request, ""));
    link.ring();
    if (field.dice(2) == 0)
        link.send(link.packet(Packet::Bye));
    pause(field.dice(3));
    link.socket.reset();
    for (HandMadeLink guest = field.accept(5); !guest.ended; guest = field.accept(5)) {
        Descriptor const file = testsupport::oddFile(field.number(), 0, guest.own.file.get());
        Descriptor const bell = testsupport::oddBell(field.number(), guest.own.bell.get());
        LingeringFile const lingering(field.dice(3));
        guest.send(guest.packet(field.dice(2) == 0 ? static_cast<unsigned int>(Packet::Welcome)
                                                   : field.dice(9),
                                kSmallestRing),
                   field.dice(4) == 0 ? lingering.get() : file.get(),
                   field.dice(4) == 0 ? lingering.get() : bell.get());
        field.keep(std::move(guest), 8);
    }
}

}  // namespace

Attacks channelAttacks() {
    return {{"words", "stores nonsense in the control page", overChannel<lieInWords>},
            {"frames", "puts wrong lengths into its ring", overChannel<lieInFrames>},
            {"nothings", "sends rings full of empty frames", overChannel<flood<0>, kLargestRing>},
            {"midgets", "sends rings full of messages without a header",
             overChannel<flood<8>, kLargestRing>},
            {"ends", "closes on a ring full of messages", overChannel<closeOnMany, kLargestRing>},
            {"bell", "makes the bells block", overChannel<blockBells>},
            {"head", "has taken half a frame of bytes that look like frames", lieInMidFrame},
            {"growth", "announces rings that are none, and none that are", overChannel<growOddly>},
            {"packets", "says Bye and Stay without end", overChannel<talkMuch>},
            {"host", "accepts and answers with nonsense", overChannel<hostBadly>}};
}

}  // namespace hostile
