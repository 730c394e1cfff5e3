// By those whose channel is in order, and whose messages are not.
#include "Field.h"

namespace hostile {
namespace {

/** A channel that is kept for many rounds, with an object behind it. */
struct Line {
    HandMadeLink link;
    Victim victim;
    std::uint32_t object = 0;

    /** With an own entry, and one of the victims unless another line has chosen. */
    bool stands(Field& field, std::size_t which = 0, Line const* other = nullptr) {
        link.hear(0);
        if (object != 0 && !link.ended)
            return true;
        victim = other ? other->victim : field.victim();
        link = HandMadeLink();
        object = 0;  // where nobody lets it in, the next round tries again
        link = field.open(victim, Transport::kLargestRing, which);
        object = link.ended ? 0 : objectOf(link, victim, field.number());
        return object != 0;
    }
    /** Has what was put in read; what comes back is of no interest. */
    void flush() {
        link.ring();
        link.own.page().head.store(link.peer.page().tail.load());
    }
};

/** Does something over a channel that is kept. */
template <void (*act)(Field&, Line&)>
void overLine(Field& field) {
    static Line line;
    require(line.stands(field), "nobody lets it in");
    act(field, line);
}

void callMuch(Field& field, Line& line, int count) {
    std::string const note =
        call(field.number(), oneWay, line.object, kNote, text(field.dice(2) == 0 ? "x" : "flood"));
    std::string const large =
        call(field.number(), oneWay, line.object, kNote, text(std::string(60'000, 'x')));
    for (int i = 0; i < count; ++i)
        if (!line.link.put(i % 100 == 0 ? large : note))
            line.link.ring();
}

/** As many as go in, as fast as they are taken. */
void callWithoutEnd(Field& field, Line& line) {
    callMuch(field, line, 20'000);
}

/** Likewise, of more and more terminations of this process, as far as one victim lets them in. */
void callAsCrowd(Field& field) {
    constexpr std::size_t kMost = 40;
    static std::deque<Line> crowd;
    if (crowd.size() < kMost)
        crowd.resize(crowd.size() + 2);
    std::size_t standing = 0;
    while (standing < crowd.size() &&
           crowd[standing].stands(field, standing, standing == 0 ? nullptr : &crowd[0]))
        callMuch(field, crowd[standing++], 400);
    require(standing > 1, "a second one is not let in");
}

/** Has large answers made for it, and takes none of them. So large that the victim's allocator
 * keeps none for later, which could not be told from a leak. */
void neverListen(Field& field, Line& line) {
    std::string const large = text(std::string(200'000, 'x'));
    for (int i = 0; i < 20; ++i)
        if (!line.link.put(call(field.number(), request, line.object, kEcho, large)))
            line.link.ring();
    line.link.ring();
}

/** Messages of the largest size, each of which comes but for its end, or goes on with another. */
void leaveUnfinished(Field& field, Line& line) {
    constexpr std::uint32_t kPiece = 60'000;
    constexpr std::uint32_t kLargest = 16 * 1024 * 1024;
    static std::uint32_t left = 0;
    std::string const piece(kPiece, 'x');
    for (int i = 0; i < 40; ++i) {
        std::uint32_t const frame = Transport::frameBytes(kPiece);
        if (left <= kPiece)
            left = field.dice(4) == 0 ? kPiece + field.dice(kLargest) : kLargest;
        for (int tries = 0; line.link.unread() + frame > line.link.own.ring.capacity; ++tries) {
            line.link.ring();
            line.link.hear(1);
            if (line.link.ended || tries == 20)
                return;
        }
        std::uint32_t const tail = line.link.own.page().tail.load();
        line.link.writeFrame(tail, {kPiece, left}, piece);
        line.link.own.page().tail.store(tail + frame);
        left -= kPiece;
    }
    line.link.ring();
}

/** An object that somebody else makes, has made, or will make. */
std::string otherOnesThing(Field& field) {
    return handle("thing." + std::to_string(field.dice(5000)), field.resident().id, field.number());
}

/** The answer to a subscription: things of others exist, and the classes are none that there are,
 * or do not come. */
std::string forgedExisting(Field& field) {
    std::uint32_t const counts[] = {0, 1, 70'000, 0xFFFFFFFFu};
    return big(1) + otherOnesThing(field) + big(counts[field.dice(4)]);
}

/** Answers to what others were asked: all transaction ids that a victim can have in use. */
void forgeResponses(Field& field, Line& line) {
    std::uint32_t const victim = line.victim.id.value();
    std::uint32_t const low = (victim & 0xFFFF) | (victim >> 16 & 0xF) << 16;
    static std::uint32_t top = 0;
    bool const ofCall = field.dice(2) == 0;
    std::string const data = ofCall ? big(0) + big(0) + text("forged") : forgedExisting(field);
    for (int i = 0; i < 512; ++i, ++top) {
        std::string const forged =
            message(top << 20 | low, ofCall ? payload : wantCreations, response, data);
        for (int tries = 0; !line.link.put(forged) && tries < 20; ++tries) {
            line.link.ring();
            line.link.hear(1);
        }
    }
    line.flush();
}

/** Says that things of others have come and gone. */
void forgeNotices(Field& field, Line& line) {
    for (int i = 0; i < 16; ++i)
        line.link.put(message(field.number(), field.dice(2) == 0 ? created : deleted,
                              field.dice(2) == 0 ? request : oneWay,
                              big(kThing) + otherOnesThing(field)));
    line.flush();
}

/** Is one of the group for a while, whom all ask what he has, and answers that he has what is
 * others'. */
void joinAndLie(Field& field) {
    field.leave();
    field.enter(kUnits);
    std::deque<HandMadeLink> guests;
    unsigned int answered = 0;
    auto const begin = std::chrono::steady_clock::now();
    auto const stays = [&] {
        return std::chrono::steady_clock::now() - begin <
               std::chrono::milliseconds(answered == 0 ? 3000 : 200);
    };
    while (stays()) {
        if (HandMadeLink guest = field.accept(1); !guest.ended) {
            guest.send(guest.packet(Packet::Welcome, guest.own.ring.capacity), guest.own.file.get(),
                       guest.own.bell.get());
            guests.push_back(std::move(guest));
        }
        for (HandMadeLink& guest : guests)
            while (auto const asked = take(guest, 0)) {
                std::uint32_t const type = numberAt(*asked, 4);
                guest.put(message(numberAt(*asked, 0), type, response,
                                  type == wantCreations ? forgedExisting(field)
                                  : type == search      ? big(0)
                                                        : field.noise(field.dice(20))));
                guest.ring();
                ++answered;
            }
    }
    field.leave();
    require(answered != 0, "nobody asks it");
}

/** Whether the victim asks something; its answers are passed over. */
bool isAsked(HandMadeLink& link) {
    for (;;) {
        auto const message = take(link, 500);
        if (!message || numberAt(*message, 8) == request)
            return message.has_value();
    }
}

/** Has itself asked before and after calls of its own, never answers, and vanishes; or names those
 * who are not there, or know nothing of it, for calls of others. These would wait for itself, as
 * they should. */
void observeAndVanish(Field& field) {
    constexpr std::uint32_t kRegisterObserver = 1000;
    field.leave();
    TerminationId const own = field.enter(kUnits, Visibility::Silent).id();
    Victim const victim = field.victim();
    HandMadeLink link = field.open(victim);
    std::uint32_t const object = link.ended ? 0 : objectOf(link, victim, field.number());
    require(object != 0, "nobody lets it in");
    bool const asOther = field.dice(2) == 0;
    TerminationId const other =
        field.dice(2) == 0 ? field.resident().id : TerminationId(0xFFF0, 1, kUnits);
    auto const tell = [&](std::uint32_t method, std::string const& arguments) {
        link.put(call(field.number(), request, object, method, arguments));
    };
    for (std::uint32_t const after : {0u, 1u})
        tell(kRegisterObserver, big(after) + big(kClass) + big(asOther ? kEcho : kIdle) +
                                    handle("observer", asOther ? other : own, object));
    for (int i = 0; !asOther && i < 50; ++i)
        tell(kIdle, "");
    link.ring();
    require(asOther || isAsked(link), "it is not asked");
    pause(field.dice(100));
    if (field.dice(2) == 0)
        link.socket.reset();
    field.leave();
}

/** Requests of every type whose data claim to be longer than they are, inside and outside. */
void lieInLengths(Field& field, Line& line) {
    constexpr std::uint32_t kGetException = 2101;  // the one that sets it is what it is there for
    std::uint32_t const lengths[] = {0xFFFFFFFFu, 0x7FFFFFFFu, 0x80000000u, 65'536, 65'537,
                                     1u << 20,    104,         3,           0};
    for (int i = 0; i < 4; ++i) {
        auto const any = [&] { return lengths[field.dice(std::size(lengths))]; };
        std::string lie = big(field.number()) + big(1 + field.dice(11)) +
                          big(field.dice(2) == 0 ? request : oneWay) + big(any());
        lie += big(field.dice(2) == 0 ? line.object : any()) + big(field.dice(2)) + big(kClass);
        lie += big(field.dice(3) == 0 ? kGetException : field.dice(4)) + big(any());
        lie += field.noise(field.dice(200));
        line.link.put(lie);
    }
    line.flush();
}

/** Headers of no known type or kind, or none at all. A failure that a broker tells another one of
 * resets both, as it should, and is left out. */
void sendOddHeaders(Field& field, Line& line) {
    constexpr std::uint32_t kFailure = 5;
    for (int i = 0; i < 64; ++i) {
        std::uint32_t kind = field.dice(2) == 0 ? field.dice(9) : field.number();
        if (kind == kFailure)
            kind = 0;
        std::string odd =
            message(field.number(), field.dice(2) == 0 ? field.dice(16) : field.number(), kind,
                    field.noise(field.dice(60)));
        if (field.dice(4) == 0)
            odd.resize(field.dice(16));
        line.link.put(odd);
    }
    line.flush();
}

}  // namespace

Attacks brokerAttacks() {
    return {{"notes", "sends one-way calls without end", overLine<callWithoutEnd>},
            {"crowd", "does so as many terminations of one process", callAsCrowd},
            {"deaf", "asks for large answers and takes none", overLine<neverListen>},
            {"pieces", "sends large messages but for their ends", overLine<leaveUnfinished>},
            {"responses", "answers what others were asked", overLine<forgeResponses>},
            {"notices", "tells of objects of others", overLine<forgeNotices>},
            {"member", "joins the group, and answers that it has objects of others", joinAndLie},
            {"observers", "observes calls, and is silent or vanishes", observeAndVanish},
            {"lengths", "sends requests that claim to be longer", overLine<lieInLengths>},
            {"headers", "sends headers of no type and no kind", overLine<sendOddHeaders>}};
}

}  // namespace hostile
