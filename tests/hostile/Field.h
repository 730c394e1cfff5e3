// Where an attacker finds its victims, and what it has itself.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "HandMadeLink.h"
#include "platform/transport/local/EntryFolder.h"

namespace hostile {

using testsupport::HandMadeLink;
using Transport::Descriptor;
using Transport::FrameHead;
using Transport::Packet;
using Transport::TerminationId;

/** The actors of good processes begin with it. */
constexpr char kGood[] = "good-";

struct Victim {
    TerminationId id;
    std::string file;    // of its socket
    std::string object;  // which it serves
};

/** An entry of the rendezvous folder, of a group that no broker cares for, with nobody behind it
 * but who uses it. A process has one at a time: its locks go with the first that closes the file.
 */
class Entry {
public:
    Entry();
    /** Unless it is abandoned, it leaves as it should. */
    ~Entry();
    Entry(Entry const&) = delete;
    Entry& operator=(Entry const&) = delete;

    TerminationId id() const { return id_; }
    int listening() const { return listening_.get(); }
    Transport::EntryFolder& folder() const { return *folder_; }

private:
    std::unique_ptr<Transport::EntryFolder> const folder_;
    TerminationId id_;
    std::string file_;
    Transport::OpenSocket listening_;
};

/** The current directory is the rendezvous folder. One thread. */
class Field {
public:
    explicit Field(unsigned int seed) : random_(seed) {}

    unsigned int dice(unsigned int sides) { return static_cast<unsigned int>(random_()) % sides; }
    std::uint32_t number() { return static_cast<std::uint32_t>(random_()); }
    std::string noise(std::size_t size);
    bool hasVictims() { return !victims().empty(); }
    /** One of the good terminations. */
    Victim victim();
    std::vector<Victim> victims() const;
    /** The own entry, taken when it is first asked for. */
    Entry& entry();
    void leave() { entry_.reset(); }

    /** A connection, without a word; ended when there is none to be had. */
    HandMadeLink connect(Victim const& victim);
    /** A channel, as it should be made; ended when the victim does not want it. */
    HandMadeLink open(Victim const& victim, std::uint32_t capacity = Transport::kSmallestRing);
    /** Keeps it until so many more have been kept. */
    void keep(HandMadeLink link, std::size_t most = 64);
    /** The internal id of the victim's object, which is asked for. */
    std::uint32_t objectOf(HandMadeLink& link, Victim const& victim);

private:
    std::mt19937 random_;
    std::unique_ptr<Entry> entry_;
    std::deque<HandMadeLink> kept_;
};

// ---- Messages

/** A number as brokers write it. */
std::string big(std::uint32_t value);
/** A text likewise. */
std::string text(std::string const& value);
enum Kind : std::uint32_t { oneWay = 1, request = 2, response = 3 };
enum Type : std::uint32_t { search = 1, payload = 2, counters = 10 };
std::string message(std::uint32_t transaction, std::uint32_t type, std::uint32_t kind,
                    std::string const& data);
std::string call(std::uint32_t transaction, std::uint32_t kind, std::uint32_t object,
                 std::uint32_t method, std::string const& arguments);

/** One more frame of what the victim has put into its ring, taken as it should be: the message, or
 * nothing when none comes in time. */
std::optional<std::string> take(HandMadeLink& link, int milliseconds);

// ---- Attacks

/** Each runs one round, of a few milliseconds. */
struct Attack {
    char const* name;
    char const* what;
    void (*round)(Field&);
};
using Attacks = std::vector<Attack>;
Attacks strangerAttacks();
Attacks channelAttacks();
Attacks brokerAttacks();
Attacks folderAttacks();
Attacks processAttacks();

}  // namespace hostile
