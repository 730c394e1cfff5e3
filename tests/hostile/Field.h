// Where an attacker finds its victims, and what it has itself.
#pragma once

#include <chrono>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>

#include "GoodObject.h"
#include "HandMadeLink.h"
#include "platform/transport/local/EntryFolder.h"

namespace hostile {

using testsupport::HandMadeLink;
using Transport::Descriptor;
using Transport::FrameHead;
using Transport::Packet;
using Transport::TerminationId;
using Transport::Visibility;

/** The actors of good processes begin with it. */
constexpr char kGood[] = "good-";

struct Victim {
    TerminationId id;
    std::string file;    // of its socket
    std::string object;  // which it serves
};

/** Of the brokers of units, and one that no broker cares for. */
constexpr Transport::GroupId kUnits = 1;
constexpr Transport::GroupId kNobody = 0xF0;

/** A round without this is none. */
inline void require(bool holds, char const* what) {
    if (!holds)
        throw std::runtime_error(what);
}

/** A right that the attack needs, and that users do not have everywhere. */
struct LacksRight : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/** An entry of the rendezvous folder, with nobody behind it but who uses it. */
class Entry {
public:
    Entry(Transport::EntryFolder& folder, Transport::GroupId group, Visibility visibility)
        : folder_(folder) {
        auto name = folder_.file()->takeName(0, 1, [](auto) { return true; });
        id_ = TerminationId(name.nameId(), 1, group);
        file_ = Transport::EntryFolder::fileName(id_, "hostile", "", visibility);
        Transport::HiddenSocket hidden = folder_.bindHidden(id_);
        require(name.nameId() != 0 && hidden.valid() && hidden.show(file_),
                "no entry is to be had");
        name.keep();
        listening_ = hidden.release();
        folder_.announce();
    }
    /** Unless it is abandoned, it leaves as it should. */
    ~Entry() {
        folder_.remove(file_);
        folder_.file()->unlockName(id_);
        folder_.announce();
    }
    Entry(Entry const&) = delete;
    Entry& operator=(Entry const&) = delete;

    TerminationId id() const { return id_; }
    std::string const& file() const { return file_; }
    int listening() const { return listening_.get(); }
    Transport::EntryFolder& folder() const { return folder_; }

private:
    Transport::EntryFolder& folder_;
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
    std::string noise(std::size_t size) {
        std::string bytes(size, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(random_());
        return bytes;
    }
    /** One of the good terminations, or the one that serves this object. */
    Victim victim(std::string const& object = "") {
        std::vector<Victim> const all = victims(object);
        require(!all.empty(), "there is no victim");
        return all[dice(static_cast<unsigned int>(all.size()))];
    }
    /** One of those that are there from the beginning to the end. */
    Victim resident() {
        char const* const names[] = {"good-home", "good-caller", "good-witness", "good-narrow"};
        return victim(names[dice(4)]);
    }
    /** The own entries, each taken when it is first asked for. */
    Entry& entry(std::size_t which = 0) {
        while (entries_.size() <= which)
            enter();
        return entries_[which];
    }
    /** One more. */
    Entry& enter(Transport::GroupId group = kNobody, Visibility visibility = Visibility::Member) {
        if (!folder_)
            folder_ = Transport::EntryFolder::open(std::getenv("TRANSPORT_DIR"));
        require(folder_ != nullptr, "no folder is to be had");
        return entries_.emplace_back(*folder_, group, visibility);
    }
    /** With all of them: their locks go with the first that closes the file. */
    void leave() {
        entries_.clear();
        folder_.reset();
    }

    /** A connection, without a word. */
    HandMadeLink connect(Victim const& victim) {
        sockaddr_un const address = testsupport::addressOf(victim.file);
        auto link = HandMadeLink::between(
            {}, victim.id, ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        require(::connect(link.socket.get(), reinterpret_cast<sockaddr const*>(&address),
                          sizeof address) == 0,
                "nobody takes its connection");
        return link;
    }
    /** A channel, as it should be made; ended when the victim does not want it. */
    HandMadeLink open(Victim const& victim, std::uint32_t capacity = Transport::kSmallestRing,
                      std::size_t which = 0) {
        HandMadeLink link = connect(victim);
        link.from = entry(which).id();
        link.ended = !link.open(capacity, kPatience);
        return link;
    }
    /** The next one who wants a channel with an own entry: he has said Hello, and waits for
     * Welcome. Ended when nobody comes. */
    HandMadeLink accept(int milliseconds) {
        int const listening = entry().listening();
        auto guest =
            HandMadeLink::between(entry().id(), {},
                                  testsupport::isReadable(listening, milliseconds)
                                      ? ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC)
                                      : -1);
        Transport::ReceivedPacket hello;
        guest.ended = !guest.socket.valid() ||
                      !testsupport::isReadable(guest.socket.get(), kPatience) ||
                      receivePacket(guest.socket.get(), hello) != Transport::Transfer::Done;
        guest.to = TerminationId(hello.packet.from);
        guest.peer = Transport::PeerSide::of(hello);
        guest.makeSide();
        return guest;
    }
    /** Keeps it until so many more have been kept. */
    void keep(HandMadeLink link, std::size_t most = 64) {
        kept_.push_back(std::move(link));
        while (kept_.size() > most)
            kept_.pop_front();
    }

private:
    static constexpr int kPatience = 1000;

    std::vector<Victim> victims(std::string const& object) const {
        std::vector<Victim> all;
        std::error_code ignored;
        for (auto const& found : std::filesystem::directory_iterator(".", ignored)) {
            std::string const file = found.path().filename();
            std::size_t const actor = file.find(std::string(".") + kGood);
            if (actor == std::string::npos || file[0] == '.' || !found.is_socket(ignored))
                continue;
            std::size_t const end = file.find('.', actor + 1);
            std::string const served = file.substr(actor + 1, end - actor - 1);
            if (object.empty() || object == served)
                all.push_back({TerminationId(static_cast<unsigned int>(
                                   std::strtoul(file.substr(0, 8).c_str(), nullptr, 16))),
                               file, served});
        }
        return all;
    }

    std::mt19937 random_;
    std::unique_ptr<Transport::EntryFolder> folder_;
    std::deque<Entry> entries_;
    std::deque<HandMadeLink> kept_;
};

inline void pause(unsigned int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// ---- Messages

/** A number as brokers write it. */
inline std::string big(std::uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift);
    return bytes;
}
/** And as they read it; of what there is. */
inline std::uint32_t numberAt(std::string const& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = at; i < at + 4 && i < bytes.size(); ++i)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}
/** A text likewise. */
inline std::string text(std::string const& value) {
    return big(static_cast<std::uint32_t>(value.size())) + value;
}

enum Kind : std::uint32_t { oneWay = 1, request = 2, response = 3 };
enum Type : std::uint32_t {
    search = 1,
    payload = 2,
    created = 3,
    deleted = 4,
    wantCreations = 5,
    wantDeletions = 6,
    counters = 10
};
inline std::string message(std::uint32_t transaction, std::uint32_t type, std::uint32_t kind,
                           std::string const& data) {
    return big(transaction) + big(type) + big(kind) + text(data);
}
inline std::string call(std::uint32_t transaction, std::uint32_t kind, std::uint32_t object,
                        std::uint32_t method, std::string const& arguments) {
    return message(transaction, payload, kind,
                   big(object) + big(kind == request) + big(kClass) + big(method) + arguments);
}

/** A handle on an object of a unit's broker, as brokers write it. */
inline std::string handle(std::string const& name, TerminationId broker, std::uint32_t object) {
    return text(name) + big(NSID_UNIT) + big(object) +
           big((broker.value() & 0xFFFFFF) | NSID_UNIT << 24);
}

/** One more frame of what the victim has put into its ring, taken as it should be: the message, or
 * nothing when none comes in time. */
inline std::optional<std::string> take(HandMadeLink& link, int milliseconds) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    std::uint32_t const head = link.own.page().head.load();
    std::uint32_t const tag = link.own.page().asleep.load();
    link.own.page().asleep.store(tag + 1);
    while (link.peer.valid() && link.peer.page().tail.load() == head) {
        if (std::chrono::steady_clock::now() > end)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (!link.peer.valid())
        return std::nullopt;
    auto const byte = [&](std::uint32_t at) {
        return link.peer.ring.mapping.data()[at % link.peer.ring.capacity];
    };
    FrameHead frame;
    for (std::size_t i = 0; i < sizeof frame; ++i)
        reinterpret_cast<unsigned char*>(&frame)[i] = byte(head + static_cast<std::uint32_t>(i));
    std::string message;
    for (std::uint32_t i = 0; i < frame.length && i < link.peer.ring.capacity; ++i)
        message += static_cast<char>(byte(head + 8 + i));
    link.own.page().head.store(head + Transport::frameBytes(frame.length));
    return message;
}

/** The internal id of the victim's object, which is asked for. */
inline std::uint32_t objectOf(HandMadeLink& link, Victim const& victim, std::uint32_t transaction) {
    link.put(message(transaction, search, request, text(victim.object) + big(1)));
    link.ring();
    auto const answer = take(link, 500);
    return answer ? numberAt(*answer, 16) : 0;
}

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
