// A termination, and a peer that owns an entry of the rendezvous folder but does everything else by
// hand: packets, descriptors, shared memory and files of the folder of unknown origin.
#include <sys/stat.h>

#include <atomic>
#include <fstream>

#include "FuzzProcess.h"
#include "Script.h"
#include "platform/transport/local/HiddenName.h"
#include "platform/transport/local/Receiver.h"
#include "tests/support/HandMadeLink.h"
#include "tests/support/LingeringConnection.h"
#include "tests/transport/TestTermination.h"

namespace {

using namespace Transport;
using transporttest::TestHead;
using transporttest::TestTermination;

constexpr int kMostSteps = 40;
/** Milliseconds that the termination may take to connect. */
constexpr int kConnecting = 20;
/** Nanoseconds: some channels are quiet for long enough to be given back. */
constexpr long long kIdleLooks = 3'000'000;

using Connection = testsupport::HandMadeLink;

class Peer {
public:
    Peer(TerminationId to, GroupId group) : to_(to), entry_(group) {}
    /** The termination has closed each connection when this is over. */
    ~Peer() {
        Rendezvous::instance().withdraw(entry_.id());
        accept(0);
        for (Connection& connection : connections_) {
            ::shutdown(connection.socket.get(), SHUT_WR);
            while (!connection.ended)
                connection.hear(-1);
        }
    }

    TerminationId id() const { return entry_.id(); }
    void connect() { keep(entry_.connect(to_)); }
    void accept(int milliseconds) {
        for (; keep(entry_.accept(to_, milliseconds)); milliseconds = 0)
            connections_.back().hear(50);
    }
    /** The one that the next steps are about; null when there is none. */
    Connection* last() { return connections_.empty() ? nullptr : &connections_.back(); }

private:
    bool keep(Connection made) {
        bool const valid = made.socket.valid();
        if (valid)
            connections_.push_back(std::move(made));
        return valid;
    }

    TerminationId const to_;
    testsupport::HandMadeEntry const entry_;
    std::vector<Connection> connections_;
};

/** One input: the peer's group, then steps, each with the operands that its function takes. */
class Session {
public:
    Session(TestTermination& own, fuzz::Script& script)
        : own_(own),
          script_(script),
          peer_(own.termId(), static_cast<GroupId>(script.byte() % 6)) {}
    ~Session() {
        for (std::string const& file : files_)
            std::filesystem::remove(file, ignored_);
    }

    void take() {
        // Their order is that of the corpus.
        static std::vector<void (Session::*)()> const steps = {
            &Session::connect,       &Session::sayHello,  &Session::accept,
            &Session::sendOddPacket, &Session::sendBytes, &Session::writeRing,
            &Session::storeWord,     &Session::putFrames, &Session::ring,
            &Session::send,          &Session::hangUp,    &Session::addFile,
            &Session::spoilPresence, &Session::sendHeads, &Session::passLingering,
            &Session::blockBell,     &Session::takePart,  &Session::sendBack};
        (this->*steps[script_.byte() % steps.size()])();
    }

private:
    // ---- Packets ----

    /** Once more, as another one of those who connect. */
    void connect() { peer_.connect(); }
    /** What the termination connects. */
    void accept() {
        peer_.accept(sent_ ? kConnecting : 0);
        sent_ = false;
    }
    /** The connection that a step is about; null when there can be none. */
    Connection* connected() {
        if (!peer_.last())
            peer_.connect();
        return peer_.last();
    }
    /** A good one. */
    void sayHello() {
        if (Connection* const connection = connected()) {
            connection->sayHello();
            connection->hear(1000);
        }
    }
    /** No packet at all. */
    void sendBytes() {
        Connection* const connection = connected();
        std::string const bytes = connection ? script_.text() : "";
        if (connection)
            ::send(connection->socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void hangUp() {
        if (Connection* const connection = connected())
            ::shutdown(connection->socket.get(), SHUT_WR);
    }
    /** With wrong fields or descriptors. */
    void sendOddPacket() {
        Connection* const connection = connected();
        if (!connection)
            return;
        if (!connection->own.valid())
            connection->makeSide();
        Packet packet = connection->packet(script_.byte() % 9, kSmallestRing);
        unsigned char const odd = script_.byte();
        if ((odd & 1) != 0)
            packet.ringCapacity = script_.number();
        if ((odd & 2) != 0)
            packet.ringCapacity = kSmallestRing << script_.byte() % 8;
        if ((odd & 4) != 0)
            packet.from = script_.number();
        if ((odd & 8) != 0)
            packet.to ^= script_.byte();
        if ((odd & 16) != 0)
            packet.version ^= script_.byte();
        if ((odd & 32) != 0)
            packet.layoutCheck ^= script_.number();
        bool const ring = packet.kind == Packet::NextRing;
        unsigned char const kinds = script_.byte();
        Descriptor const file = testsupport::oddFile(
            (kinds & 15) % 6, ring ? packet.ringCapacity : packet.ringCapacity + kRingOffset,
            connection->own.file.get());
        Descriptor const bell = testsupport::oddBell((kinds >> 4) % 4, connection->own.bell.get());
        connection->send(packet, file.get(), bell.get());
        connection->hear((odd & 64) != 0 ? 5 : 0);
    }

    /** A descriptor that whoever closes it waits for, with a packet that may be good. */
    void passLingering() {
        Connection* const connection = connected();
        if (!connection)
            return;
        Packet packet = connection->packet(script_.byte() % 9, kSmallestRing);
        unsigned char const odd = script_.byte();
        if ((odd & 1) != 0)
            packet.version ^= 1;
        if ((odd & 2) != 0)
            packet.from ^= 1;
        testsupport::LingeringConnection lingering;
        if (!connection->send(packet, lingering.get(), (odd & 4) != 0 ? lingering.get() : -1))
            lingering.hurry();
        deaf_.push_back(lingering.takeOther());
        connection->hear((odd & 8) != 0 ? 5 : 0);
    }
    /** Whoever rings the peer is to wait. */
    void blockBell() {
        Connection* const connection = connected();
        if (!connection || !connection->own.valid())
            return;
        testsupport::blockBell(connection->own.bell.get());
        connection->own.page().asleep.fetch_add(1);
        connection->own.page().wantsSpace.fetch_add(1);
    }

    // ---- What the peer does in shared memory ----

    template <class Change>
    void share(Change const& change) {
        Connection* const connection = connected();
        if (!connection || !connection->own.valid())
            return;
        change(*connection, connection->own.page());
        connection->ring();
        settle(*connection);
    }
    void ring() {
        share([](Connection&, ControlPage&) {});
    }
    void writeRing() {
        share([this](Connection& connection, ControlPage&) {
            std::uint32_t const at = script_.number();
            std::string const bytes = script_.text();
            connection.write(at, bytes.data(), bytes.size());
        });
    }
    void storeWord() {
        share([this](Connection&, ControlPage& page) {
            std::atomic<std::uint32_t>* const words[] = {&page.tail, &page.head, &page.asleep,
                                                         &page.wantsSpace};
            std::atomic<std::uint32_t>& word = *words[script_.byte() % 4];
            word.store((script_.byte() & 1) != 0 ? script_.number()
                                                 : word.load() + script_.byte() * 8u);
        });
    }
    /** Good ones. */
    void putFrames() { writeFrames(0); }
    /** Likewise, as if the termination itself had sent them. */
    void sendBack() { writeFrames(Transport::kSentBack); }
    void writeFrames(std::uint32_t mark) {
        share([this, mark](Connection& connection, ControlPage& page) {
            std::uint32_t tail = page.tail.load();
            for (int left = script_.byte() % 8; left >= 0; --left) {
                FrameHead const head{script_.byte() * 8u, script_.byte() * 8u | mark};
                connection.writeFrame(tail, head, {});
                tail += frameBytes(head.length);
            }
            page.tail.store(tail);
        });
    }
    /** Until the termination has read the ring, or closed the connection. */
    static void settle(Connection& connection) {
        for (int i = 0; i < 200 && !connection.ended; ++i) {
            if (connection.peer.valid() &&
                connection.peer.page().head.load() == connection.own.page().tail.load())
                return;
            connection.hear(0);
            std::this_thread::yield();
        }
    }

    /** The peer says that it stands somewhere in what the termination has put in. */
    void takePart() {
        share([this](Connection&, ControlPage& page) {
            page.head.store(page.head.load() + (script_.byte() << script_.byte() % 12) * 8u);
        });
    }

    /** What the termination sends looks like heads of frames, as if a peer had its words sent back
     * to it. */
    void sendHeads() {
        sent_ = true;
        FrameHead const head{script_.number(), script_.number()};
        std::size_t const size = std::size_t{script_.byte()} << script_.byte() % 12;
        AddressedMessage message = own_.allocateMessage(std::max(size, sizeof head), 5);
        for (std::size_t at = 0; at + sizeof head <= message.size(); at += sizeof head)
            std::memcpy(message.buf() + at, &head, sizeof head);
        for (int left = script_.byte() % 64; left >= 0; --left)
            Termination(peer_.id()).issue(message);
    }
    /** The termination sends to the peer. */
    void send() {
        sent_ = true;
        int const count = script_.byte() % 16;
        std::size_t const size = std::size_t{script_.byte()} << script_.byte() % 10;
        for (int i = 0; i < count; ++i)
            own_.send(peer_.id(), TestHead::Numbered, 0, std::max(size, sizeof(TestHead)));
    }

    // ---- The folder ----

    static std::string folder() { return std::getenv("TRANSPORT_DIR"); }
    static std::string presence() { return folder() + "/presence"; }
    /** Beside the entries, or in place of the shared file. */
    void addFile() {
        unsigned char const type = script_.byte();
        std::string name = script_.text().substr(0, 80);
        for (char& c : name)
            if (c == '/' || c == '\0')
                c = '_';
        if ((type & 16) != 0)
            name = transporttest::hex(own_.termId()) + "." + name;
        if ((type & 32) != 0)
            name = transporttest::hex(peer_.id().value() ^ 0x01000000u) + "." + name;
        if ((type & 8) != 0)
            name += ".pid" + std::to_string((type & 128) != 0 ? ::getpid() : 1) + ".x";
        if ((type & 4) != 0)
            name = Transport::kHiddenPrefix + name;
        std::string const path = folder() + "/" + name;
        if (name.empty() ||
            std::filesystem::exists(std::filesystem::symlink_status(path, ignored_)))
            return;
        files_.push_back(path);
        switch (type % 4) {
            case 0:
                testsupport::socketAt(path);
                break;
            case 1:
                std::ofstream(path) << ((type & 64) != 0 ? script_.text() : "x");
                break;
            case 2:
                std::filesystem::create_directory(path, ignored_);
                break;
            default:
                std::filesystem::create_symlink("presence", path, ignored_);
                break;
        }
        if ((type & 64) != 0) {
            std::filesystem::remove(presence(), ignored_);
            std::filesystem::rename(path, presence(), ignored_);
        }
        Rendezvous::instance().suspect(peer_.id());
        scan();
    }
    /** Kept open as long as it is in the folder: whoever closes it gives up his process's locks. */
    static int openPresence() {
        static Descriptor file;
        struct stat held {};
        struct stat there {};
        if (::lstat(presence().c_str(), &there) != 0 || !S_ISREG(there.st_mode))
            return -1;
        if (!file.valid() || ::fstat(file.get(), &held) != 0 || held.st_ino != there.st_ino) {
            file.reset();
            file = Descriptor(::open(presence().c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        }
        return file.get();
    }
    /** What the shared file of the folder says. */
    void spoilPresence() {
        int const file = openPresence();
        if (file < 0)
            return;
        unsigned char const which = script_.byte();
        std::uint32_t const word = script_.number();
        bool const done = which % 4 == 3 ? ::ftruncate(file, script_.byte()) == 0
                                         : ::pwrite(file, &word, sizeof word, which % 4 * 4) > 0;
        if (!done)
            std::abort();
        scan();
    }
    /** One more entry comes and goes: the folder is read for it. */
    static void scan() {
        TerminationId const id = Rendezvous::instance().reserve(GroupId{1}, "passing");
        Descriptor const listening(Rendezvous::instance().publish(id));
        for (TerminationId const other : Rendezvous::instance().terminations())
            Rendezvous::instance().claim(other, ::getpid());
        Rendezvous::instance().withdraw(id);
    }

    TestTermination& own_;
    fuzz::Script& script_;
    Peer peer_;
    std::vector<Descriptor> deaf_;
    bool sent_ = false;  // by the termination, and nothing accepted since
    std::vector<std::string> files_;
    std::error_code ignored_;
};

void runHandshake(std::uint8_t const* data, std::size_t size) {
    static TestTermination own("own");
    static bool const started = [] {
        Receiver::idleLookInterval(kIdleLooks);
        return own.start() == 1;
    }();
    if (!started)
        std::abort();
    fuzz::Script script(data, size);
    Session session(own, script);
    for (int i = 0; i < kMostSteps && script.more(); ++i)
        session.take();
}

}  // namespace

FUZZ_TARGET(handshake, runHandshake)
