#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/transport/link/Record.h"
#include "platform/transport/link/Security.h"

namespace Link {

/** A link that runs. A value. */
struct UnitInfo {
    std::uint64_t epoch = 0;  // random, of one stay of it on the bus
    unsigned char slot = 0;
    std::string machine;  // the same in each run
};

struct BusOptions {
    std::string interface;           // by name or address
    std::vector<std::string> peers;  // where nothing is multicast; empty: multicast
    unsigned domain = 7;
    unsigned fragment = 1344;  // bytes of a datagram
    Security security;
};

/**
 * What a bus tells, on threads of the engine, which must not be blocked. Whatever it tells of an
 * epoch comes from who has announced that one, with the slot that this one may have, as far as the
 * engine authenticates.
 */
class BusListener {
public:
    /** Each link that is in sight, our own included; perhaps more than once. */
    virtual void unitSeen(UnitInfo const& unit) = 0;
    virtual void unitLost(std::uint64_t epoch) = 0;
    /** `Bus::tellStrangers` is to be called. */
    virtual void strangerSeen() = 0;
    /** `records` are valid during the call. */
    virtual void pieceArrived(std::uint64_t epoch, PieceHead const& head,
                              unsigned char const* records, std::size_t size) = 0;

protected:
    ~BusListener() = default;
};

/** The way to the inbox of one other link. */
class BusWriter {
public:
    virtual ~BusWriter() = default;
    /** May wait for up to ten seconds while the engine has too much under way. One thread at a
     * time; false: the piece is lost. */
    virtual bool write(Piece const& piece) = 0;
};

/**
 * The engine that carries pieces between links: the one place that knows it. A resource; its end
 * says good-bye, and tells the listener nothing any more. Writers end before it.
 */
class Bus {
public:
    virtual ~Bus() = default;
    /** What `open` gives: no bus, with a log line, while the engine does not start. */
    struct Opened {
        std::unique_ptr<Bus> bus;
        bool refused = false;  // by the certificate; otherwise its interface is not up, say
    };
    /** `listener` outlives the bus. Nothing is announced. */
    static Opened open(BusOptions const& options, UnitInfo const& own, BusListener& listener);
    /** Shows this link to the others. */
    virtual bool announce() = 0;
    /** Says good-bye. Idempotent. */
    virtual void retire() = 0;
    /** Logs who is in sight and has not been let in, where links authenticate each other. How long
     * that need not be called again, in milliseconds; negative: until a stranger is seen. */
    virtual int tellStrangers() = 0;
    /** Null, with a log line, when the engine has none to give. */
    virtual std::unique_ptr<BusWriter> writerTo(UnitInfo const& unit) = 0;
};

}  // namespace Link
