#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bench {

/** What travels on a floor: 64 bytes of a call, or a header with a body behind it. */
struct FloorMessage {
    enum Kind : std::uint32_t { kRequest, kAnswer, kOneWay, kCount, kStop };

    std::uint32_t kind = kRequest;
    std::uint32_t caller = 0;  // index of the calling thread
    std::uint32_t number = 0;
    std::uint32_t bodySize = 0;
    char text[48] = {};

    /** A request as the broker's bench makes it: an argument and 32 bytes of text. */
    static FloorMessage of(Kind kind, std::uint32_t caller, std::size_t bodySize) {
        FloorMessage message{kind, caller, 7, static_cast<std::uint32_t>(bodySize), {}};
        std::fill_n(message.text, 32, 'x');
        return message;
    }
};
static_assert(sizeof(FloorMessage) == 64, "the floors' message has 64 bytes");

/** Two-way message channel between two processes. `send` may be called by any thread, `receive` by
 * one. */
class Link {
public:
    virtual ~Link() = default;
    virtual void send(FloorMessage const& head, unsigned char const* body) = 0;
    /** Waits for the next message; false when the other side has gone. */
    virtual bool receive(FloorMessage& head, std::vector<unsigned char>& body) = 0;
    /** Makes a waiting `receive` answer false. */
    virtual void close() = 0;
};

std::unique_ptr<Link> acceptSocketLink(std::string const& folder);
std::unique_ptr<Link> connectSocketLink(std::string const& folder);
std::unique_ptr<Link> acceptRingLink(std::string const& folder);
std::unique_ptr<Link> connectRingLink(std::string const& folder);
/** Rings of one caller, with their number, at which both sides sleep without polling first. The
 * server makes them before it says that it is ready. */
std::unique_ptr<Link> makeSleepingRing(std::string const& folder, std::uint32_t number);
std::unique_ptr<Link> openSleepingRing(std::string const& folder, std::uint32_t number);

}  // namespace bench
