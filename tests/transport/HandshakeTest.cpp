#include <linux/fuse.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>

#include <atomic>
#include <deque>
#include <thread>

#include "AllocationCount.h"
#include "HandMadeLink.h"
#include "LingeringConnection.h"
#include "LogCapture.h"
#include "Threads.h"
#include "TransportActor.h"
#include "platform/transport/local/Acceptor.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/Switchboard.h"

namespace transporttest {
namespace {

using namespace testsupport;
using namespace Transport;

std::size_t openDescriptors(std::string const& kind) {
    std::size_t count = 0;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        std::string const name = std::filesystem::read_symlink(entry.path(), gone).string();
        count += name.compare(0, kind.size(), kind) == 0 ? 1 : 0;
    }
    return count;
}

/** Bells, of which each channel has its own. */
std::size_t openBells() {
    return openDescriptors("anon_inode:[eventfd]");
}

/**
 * A peer that speaks the protocol by hand, and badly if told to. It owns a real entry of the
 * rendezvous folder, so the termination under test takes it for one of its kind.
 */
class HandMadePeer : public HandMadeLink {
public:
    HandMadePeer() { from = entry_.id(); }

    ControlPage& page() { return own.page(); }

    bool connect(TerminationId destination) {
        to = destination;
        return take(entry_.connect(to));
    }
    void accept() { take(entry_.accept(to, kPatience)); }
    void stopListening() { entry_.stopListening(); }
    void hangUp() { socket.reset(); }
    /** The connection before this one ends only now. */
    void hangUpFormer() { formerSocket_.reset(); }
    /** A Hello with a fault. */
    Packet badHello(void (*spoil)(Packet&)) const {
        Packet hello = packet(Packet::Hello, kSmallestRing);
        spoil(hello);
        return hello;
    }
    /** With what has been made before, if anything. */
    void sayHello() {
        if (!own.valid() || !own.file.valid())
            makeSide();
        introduce();
    }
    /** Over another connection, with a new side. */
    void comeBack(TerminationId destination) {
        EXPECT_TRUE(connect(destination));
        own = OwnSide();
        sayHello();
    }
    bool isWelcome() { return nextKind() == Packet::Welcome && peer.valid(); }
    bool open(TerminationId destination) {
        if (!connect(destination))
            return false;
        sayHello();
        return isWelcome();
    }
    /** Takes the other side's Hello and answers with Welcome. */
    bool welcome() {
        accept();
        bool const greeted = nextKind() == Packet::Hello && peer.valid();
        makeSide();
        return greeted &&
               send(packet(Packet::Welcome, kSmallestRing), own.file.get(), own.bell.get());
    }
    /** Whether the other side sleeps. */
    bool mustRing() const { return peer.page().asleep.load() != 0; }
    /** Bytes that lie in the other side's ring, or have lain there. */
    std::uint32_t wasSent() const { return peer.page().tail.load(); }

    static constexpr int kNone = 0;
    static constexpr int kEnd = -1;
    /** Of the next packet, whose descriptors are kept. */
    int nextKind() {
        ReceivedPacket received;
        if (!isReadable(socket.get(), kPatience))
            return kNone;
        Transfer const transfer = receivePacket(socket.get(), received);
        if (received.file.valid() && received.bell.valid())
            peer = PeerSide::of(received);
        return transfer == Transfer::Done     ? received.packet.kind
               : transfer == Transfer::Closed ? kEnd
                                              : kNone;
    }
    /** Whether the connection is closed, after whatever else comes. */
    bool isDropped() {
        int kind = nextKind();
        while (kind > kNone)
            kind = nextKind();
        return kind == kEnd;
    }
    void put(FrameHead const& head, std::uint32_t tail) {
        write(0, &head, sizeof head);
        page().tail.store(tail);
        ring();
    }

private:
    static constexpr int kPatience = 30'000;  // milliseconds

    bool take(HandMadeLink made) {
        formerSocket_ = std::move(socket);
        socket = std::move(made.socket);
        return socket.valid();
    }

    HandMadeEntry entry_{kGroup};
    Descriptor formerSocket_;  // stays open
};

class HandshakeTest : public ActorsTest {
protected:
    void SetUp() override { ASSERT_EQ(own_.start(), 1); }
    void expectThatAGoodOneIsWelcome() {
        HandMadePeer good;
        EXPECT_TRUE(good.open(own_.termId()));
    }

    LogCapture log_;
    TestTermination own_;
};

TEST_F(HandshakeTest, WhoIntroducesItselfWronglyIsDroppedWithALogLine) {
    char const* const nonsense = "it sent nonsense";
    char const* const refused = "refused process";
    char const* const noMemory = "its shared memory makes no sense";
    HandMadePeer peer;
    Peer const child;
    OwnSide const good = OwnSide::make();
    Descriptor const small = makeSealedFile(kRingOffset);
    Descriptor const unsealed = oddFile(3, 0, -1);
    SocketPair const noFile;
    int const file = good.file.get();
    int const bell = good.bell.get();
    auto const claim = [&](TerminationId id) {
        Packet hello = peer.packet(Packet::Hello, kSmallestRing);
        hello.from = id.value();
        peer.send(hello);
    };
    auto const give = [&](int its, int bells, std::uint32_t capacity = kSmallestRing) {
        peer.send(peer.packet(Packet::Hello, capacity), its, bells);
    };
    struct {
        char const* line;
        std::function<void()> introduce;
    } const cases[] = {
        {nonsense, [&] { ::send(peer.socket.get(), "hello", 5, 0); }},
        {nonsense, [&] { peer.send(peer.badHello([](Packet& packet) { packet.version = 77; })); }},
        {nonsense, [&] { peer.send(peer.badHello([](Packet& packet) { packet.to ^= 1; })); }},
        {nonsense, [&] { peer.send(peer.packet(Packet::Bye)); }},
        {refused, [&] { claim(child.id()); }},
        {refused, [&] { claim(0x03010ABC); }},
        {noMemory, [&] { give(small.get(), bell); }},
        {noMemory, [&] { give(unsealed.get(), bell); }},
        {noMemory, [&] { give(noFile.far.get(), bell); }},
        {noMemory, [&] { give(file, noFile.far.get()); }},
        {noMemory, [&] { give(file, bell, kSmallestRing + 8); }},
        {noMemory, [&] { give(file, -1); }},
        {noMemory, [&] { give(-1, -1); }},
    };
    for (auto const& bad : cases) {
        std::size_t const before = log_.count(bad.line);
        ASSERT_TRUE(peer.connect(own_.termId()));
        bad.introduce();
        EXPECT_TRUE(peer.isDropped());
        EXPECT_TRUE(log_.waitFor(bad.line, before + 1));
    }
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(peer.connect(own_.termId()));
        cases[0].introduce();
        EXPECT_TRUE(peer.isDropped());
    }
    EXPECT_LT(log_.count(nonsense), 50u) << "at will";
    expectThatAGoodOneIsWelcome();
}

TEST_F(HandshakeTest, AProcessOfAnotherUserIsRefused) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can start a process of another user";
    // As if somebody had opened the folder, whose mode keeps others away by itself.
    std::string const file = fileOf(hex(own_.termId())).filename();
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0711), 0);
    ASSERT_EQ(::chmod(inFolder(file).c_str(), 0666), 0);
    sockaddr_un const address = addressOf(file);
    pid_t const stranger = ::fork();
    if (stranger == 0) {  // only system calls; by a name, since a path may be too long
        int const socket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
        bool const connected =
            ::chdir(folder_.path().c_str()) == 0 && ::syscall(SYS_setuid, 65534) == 0 &&
            ::connect(socket, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
        char byte = 0;
        ::_exit(connected && ::recv(socket, &byte, 1, 0) <= 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(stranger, &status, 0), stranger);
    EXPECT_EQ(status, 0) << "not dropped";
    EXPECT_TRUE(log_.waitFor("refused process " + std::to_string(stranger) + " of user 65534"));
    expectThatAGoodOneIsWelcome();
}

TEST_F(HandshakeTest, WhoeverNeverSaysHelloIsDropped) {
    Acceptor::introductionLimit(20'000'000);
    HandMadePeer silent;
    ASSERT_TRUE(silent.connect(own_.termId()));
    EXPECT_TRUE(silent.isDropped());
    EXPECT_TRUE(log_.waitFor("it never said Hello"));
}

TEST_F(HandshakeTest, ManyWhoSayNothingMakeRoomForOthersTheOldestFirst) {
    constexpr std::size_t kMost = 64;
    std::vector<Descriptor> silent;
    for (std::size_t i = 0; i < kMost + 5; ++i) {
        silent.emplace_back(Rendezvous::instance().connectTo(own_.termId()));
        ASSERT_TRUE(silent.back().valid());
    }
    expectThatAGoodOneIsWelcome();
    ReceivedPacket received;
    for (std::size_t i = 0; i < silent.size(); ++i)
        EXPECT_EQ(receivePacket(silent[i].get(), received),
                  i < 6 ? Transfer::Closed : Transfer::Later)
            << i;
}

/** Also while a thread reads that waits for an answer: after so many who came alone. */
TEST_F(HandshakeTest, NonsenseInAStandingChannelClosesItAndGivesBackWhatItHeld) {
    constexpr std::uint32_t kLonely = 4;
    HandMadePeer good;
    ASSERT_TRUE(good.open(own_.termId()));
    std::vector<std::function<void(HandMadePeer&)>> const nonsense = {
        [](HandMadePeer& peer) {
            peer.put({100, 8}, 112);
        },
        [](HandMadePeer& peer) {
            peer.put({0, kNextRing}, 8);
        },
        [](HandMadePeer& peer) { peer.send(peer.packet(Packet::Hello)); },
        [](HandMadePeer& peer) { peer.send(peer.packet(Packet::NextRing)); },
        [](HandMadePeer& peer) { ::send(peer.socket.get(), "x", 1, 0); },
        [this](HandMadePeer& peer) {
            peer.page().head.store(0x80000000);
            for (std::uint32_t i = 0; i < 100; ++i)
                own_.send(peer.from, TestHead::Numbered, i, 1000);
        },
    };
    std::uint32_t returned = 0;
    for (std::size_t i = 0; i < 2 * nonsense.size(); ++i) {
        HandMadePeer peer;
        ASSERT_TRUE(peer.open(own_.termId()));
        Asker asker(own_, peer.from);
        std::uint32_t const sent = i < nonsense.size() ? 1 : kLonely + 1;
        for (std::uint32_t number = 1; number <= sent; ++number)
            ASSERT_EQ(asker.ask(number, 100), 1);
        testsupport::TestThread reader([&] {
            while (sent > 1 && !asker.read())
                sched_yield();
        });
        EXPECT_SOON(asker.reads() == (sent > 1));
        nonsense[i % nonsense.size()](peer);
        EXPECT_TRUE(peer.isDropped());
        reader.join();
        EXPECT_TRUE(own_.waitForReturned(returned += sent));
        ASSERT_EQ(own_.send(peer.from, TestHead::Numbered, 0, 100), 1);
        peer.accept();
        EXPECT_EQ(peer.nextKind(), Packet::Hello) << "the next message makes a new channel";
        ++returned;  // when the peer goes
    }
    EXPECT_EQ(own_.tally().returnedFaults, 0u);
    EXPECT_TRUE(log_.waitFor("closing the channel", nonsense.size()));
    good.put({0, 0}, 8);
    EXPECT_TRUE(own_.waitForReceived(1)) << "the good one has suffered";
}

/** Has what comes back sent once more, as often as that is granted. */
class Insistent : public TestTermination {
public:
    ~Insistent() override { stop(); }
    bool receiveError(AddressedMessage const& message) override {
        return sendAgain(message) || TestTermination::receiveError(message);
    }
};

TEST_F(HandshakeTest, WhatIsSentAgainComesBackForGoodTheNextTime) {
    Insistent own;
    ASSERT_EQ(own.start(), 1);
    HandMadePeer peer;
    ASSERT_TRUE(peer.open(own.termId()));
    std::size_t const sizes[] = {100, 10'000};  // the second one goes by pieces
    for (std::size_t const size : sizes)
        ASSERT_EQ(own.send(peer.from, TestHead::Numbered, 0, size), 1);
    peer.hangUp();
    ASSERT_TRUE(peer.welcome());
    EXPECT_SOON(peer.wasSent() > sizes[0] + sizes[1]);
    EXPECT_EQ(own.tally().returned, 0u);
    peer.hangUp();
    EXPECT_TRUE(own.waitForReturned(2));
    EXPECT_EQ(own.tally().returnedFaults, 0u);
}

TEST_F(HandshakeTest, APeerThatMakesItsBellBlockHoldsUpNobody) {
    HandMadePeer peer;
    ASSERT_TRUE(peer.open(own_.termId()));
    blockBell(peer.own.bell.get());
    for (std::uint32_t i = 1; i <= 3; ++i) {
        // Whoever sends rings, and so does the receiving thread for a peer that wants room.
        peer.page().asleep.store(i);
        ASSERT_EQ(own_.send(peer.from, TestHead::Numbered, i, 100), 1);
        peer.page().wantsSpace.store(i);
        peer.put({0, 0}, 8 * i);
    }
    EXPECT_TRUE(own_.waitForReceived(3));
    expectThatAGoodOneIsWelcome();
}

/** Passes a descriptor to the termination in its own way; false when that has hung up before. */
using Pass = std::function<bool(HandMadePeer&, int)>;

TEST_F(HandshakeTest, AConnectionThatLingersIsClosedWithoutHoldingUpAnybody) {
    std::vector<Pass> const ways = {
        [](HandMadePeer& peer, int fd) {  // by a stranger
            return peer.send(peer.badHello([](Packet& packet) { packet.version = 77; }), fd);
        },
        [](HandMadePeer& peer, int fd) {  // and never read
            ::send(peer.socket.get(), "x", 1, 0);
            ::send(peer.socket.get(), "", 0, 0);  // looks like the end
            return peer.send(peer.packet(Packet::Hello), fd);
        },
        [](HandMadePeer& peer, int fd) {  // in another's name
            return peer.send(peer.badHello([](Packet& packet) { packet.from = 0x03010ABC; }), fd,
                             fd);
        },
        [](HandMadePeer& peer, int fd) {  // by a peer
            return peer.send(peer.packet(Packet::Hello, kSmallestRing), fd, fd);
        },
        [](HandMadePeer& peer, int fd) {
            peer.sayHello();
            return peer.isWelcome() && peer.send(peer.packet(Packet::NextRing, kUsualRing), fd);
        },
    };
    for (Pass const& pass : ways) {
        LingeringConnection connection;
        ASSERT_TRUE(connection.works());
        HandMadePeer peer;
        for (bool passed = false; !passed;) {
            ASSERT_TRUE(peer.connect(own_.termId()));
            passed = pass(peer, connection.get());
            if (passed)
                connection.letGo();
            EXPECT_TRUE(peer.isDropped());
        }
        expectThatAGoodOneIsWelcome();
    }
    std::size_t const ownSockets = 2;  // one listens, one finds out who lives
    EXPECT_SOON(openDescriptors("socket:") <= ownSockets) << "something has stayed open";
}

/** Sends a packet with all these, of which the caller keeps none. */
void passAll(int socket, Packet const& packet, std::vector<LingeringConnection>& connections) {
    std::vector<int> descriptors;
    for (auto const& connection : connections)
        descriptors.push_back(connection.get());
    EXPECT_TRUE(sendWith(socket, bytesOf(packet), descriptors));
    for (auto& connection : connections)
        connection.letGo();
}

TEST_F(HandshakeTest, AStreamThatTellsCredentialsAtItsEndIsClosedAsWell) {
    HandMadePeer peer;
    SocketPair pair(SOCK_STREAM);
    int const yes = 1;
    ASSERT_EQ(::setsockopt(pair.far.get(), SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes), 0);
    std::size_t const before = openDescriptors("socket:");
    ASSERT_TRUE(peer.connect(own_.termId()));
    ASSERT_TRUE(sendWith(peer.socket.get(), "nonsense", {pair.far.get()}));
    pair.far.reset();
    EXPECT_TRUE(peer.isDropped());
    EXPECT_SOON(openDescriptors("socket:") == before);
}

TEST_F(HandshakeTest, SocketsThatHoldLingeringConnectionsAreClosedAsWell) {
    std::size_t const before = openDescriptors("socket:");
    constexpr std::size_t kMore = 10;  // than there are threads that close
    std::vector<std::vector<LingeringConnection>> connections(kMore);
    for (auto& one : connections) {
        one.resize(1);
        ASSERT_TRUE(one[0].works());
        HandMadePeer peer;
        ASSERT_TRUE(peer.connect(own_.termId()));
        SocketPair pair;
        passAll(pair.near.get(), peer.packet(Packet::Hello), one);
        peer.send(peer.packet(Packet::Left), pair.far.get());
        pair.far.reset();
        EXPECT_TRUE(peer.isDropped());
    }
    expectThatAGoodOneIsWelcome();
    EXPECT_SOON(openDescriptors("socket:") <= before + connections.size())
        << "whoever closes hangs";
}

/** A file whose closing hangs, as long as this lives: that of a file system that never answers. A
 * child serves it, which ends with the test however that ends: else what waits could not be killed.
 */
class HangingFile {
public:
    HangingFile() {
        char name[] = "/tmp/reflectorb-XXXXXX";
        Descriptor const point(::mkstemp(name));
        Descriptor const device(::open("/dev/fuse", O_RDWR | O_CLOEXEC | O_NONBLOCK));
        path_ = name;
        std::string const options =
            "fd=" + std::to_string(device.get()) + ",rootmode=100600,user_id=0,group_id=0";
        if (::mount("hanging", name, "fuse", 0, options.c_str()) != 0)
            return;
        pid_t const parent = ::getpid();
        server_ = ::fork();
        if (server_ == 0)
            serve(device.get(), parent);
        file_ = Descriptor(::open(name, O_RDONLY | O_CLOEXEC));
    }
    ~HangingFile() {
        if (server_ > 0) {
            ::kill(server_, SIGTERM);  // lets all go
            ::waitpid(server_, nullptr, 0);
        }
        std::filesystem::remove(path_);
    }

    bool works() const { return file_.valid(); }
    int get() const { return file_.get(); }

private:
    /** In the child: only system calls. */
    [[noreturn]] void serve(int device, pid_t parent) const {
        constexpr int kDevice = 3;
        sigset_t end;
        sigemptyset(&end);
        sigaddset(&end, SIGTERM);
        ::pthread_sigmask(SIG_SETMASK, &end, nullptr);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        ::dup2(device, kDevice);
        ::closefrom(kDevice + 1);
        timespec const look{0, 0};
        while (::getppid() == parent && ::sigtimedwait(&end, nullptr, &look) < 0)
            if (isReadable(kDevice, 10))
                serveOne(kDevice);
        ::umount2(path_.c_str(), MNT_DETACH);
        ::_exit(0);
    }
    static void serveOne(int device) {
        alignas(fuse_in_header) char request[2 * FUSE_MIN_READ_BUFFER];
        if (::read(device, request, sizeof request) < ssize_t{sizeof(fuse_in_header)})
            return;
        auto const& head = *reinterpret_cast<fuse_in_header const*>(request);
        if (head.opcode == FUSE_INIT) {
            fuse_init_out welcome{};
            welcome.major = FUSE_KERNEL_VERSION;
            welcome.minor = FUSE_KERNEL_MINOR_VERSION;
            welcome.max_write = 4096;
            answer(device, head, welcome);
        } else if (head.opcode == FUSE_GETATTR) {
            fuse_attr_out attributes{};
            attributes.attr.mode = S_IFREG | 0600;
            attributes.attr.nlink = 1;
            answer(device, head, attributes);
        } else if (head.opcode == FUSE_OPEN) {
            answer(device, head, fuse_open_out{});
        }
    }
    template <class Body>
    static void answer(int device, fuse_in_header const& to, Body body) {
        fuse_out_header head{sizeof head + sizeof body, 0, to.unique};
        iovec parts[] = {{&head, sizeof head}, {&body, sizeof body}};
        (void)!::writev(device, parts, 2);
    }

    std::string path_;
    pid_t server_ = -1;
    Descriptor file_;
};

TEST_F(HandshakeTest, AFileWhoseClosingHangsHoldsUpNoOtherClosing) {
    HangingFile const hanging;
    if (!hanging.works())
        GTEST_SKIP() << "this user may not mount a file system";
    HandMadePeer peer;
    auto const pass = [&](int fd) {
        ASSERT_TRUE(peer.connect(own_.termId()));
        peer.send(peer.packet(Packet::Hello, kSmallestRing), fd, fd);
        EXPECT_TRUE(peer.isDropped());
    };
    for (int i = 0; i < 20; ++i)
        pass(hanging.get());
    {
        LingeringConnection connection;
        pass(connection.get());
        connection.letGo();
        EXPECT_SOON(connection.isClosed());
    }
    expectThatAGoodOneIsWelcome();
}

/** More than one process may have waiting, in sockets that are dropped unread; then connections
 * that linger in such sockets, which nobody takes out any more. */
TEST_F(HandshakeTest, WhoPassesFilesWhoseClosingHangsKeepsOutNobodyElse) {
    Peer other;  // now: a child of one who has such files would hang
    HangingFile const hanging;
    if (!hanging.works())
        GTEST_SKIP() << "this user may not mount a file system";
    raiseDescriptorLimit();
    std::size_t const before = openDescriptors("/tmp/reflectorb-");
    HandMadePeer peer;
    auto const leaveUnread = [&](std::vector<int> const& descriptors) {
        return peer.connect(own_.termId()) &&
               sendWith(peer.socket.get(), "nonsense", descriptors) && peer.isDropped();
    };
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(leaveUnread(std::vector<int>(250, hanging.get())));
    auto const passTwo = [&] {
        return peer.connect(own_.termId()) &&
               peer.send(peer.packet(Packet::Hello, kSmallestRing), hanging.get(), hanging.get());
    };
    EXPECT_SOON(passTwo() && log_.contains("closing what it has passed hangs"));
    std::deque<LingeringConnection> connections;
    std::size_t const sockets = openDescriptors("socket:");
    constexpr std::size_t kMany = sizeof(void*) == 4 ? 200 : 600;  // a thread, with a stack, each
    for (std::size_t i = 0; i < kMany; ++i) {
        bool const left = leaveUnread({connections.emplace_back().get()});
        connections.back().letGo();
        ASSERT_TRUE(left) << "it waits itself";
    }
    other.flood(own_.termId(), 1, 8);
    EXPECT_TRUE(own_.waitForReceived(1)) << "another process waits, too";
    EXPECT_LT(openDescriptors("/tmp/reflectorb-") - before, 2048u);
    EXPECT_SOON(openDescriptors("socket:") < sockets + kMany + kMany / 2)
        << "what lingers in them holds up who closes them";
    EXPECT_FALSE(log_.contains("stays open") || log_.contains("accepts nobody"));
}

/** Sockets whose closing has the kernel wait for all its processors, before very many pipes. */
TEST_F(HandshakeTest, WhatIsSlowToCloseInSocketsIsTakenOutNoFasterThanItIsClosed) {
    constexpr std::size_t kSlow = 40;
    std::size_t const before = openDescriptors("socket:");
    std::vector<Descriptor> slow(kSlow);
    for (Descriptor& one : slow)
        one = Descriptor(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    if (!slow.back().valid())
        GTEST_SKIP() << "this user may not have such sockets";
    raiseDescriptorLimit();
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    Descriptor const pipe(ends[0]), other(ends[1]);
    std::vector<int> passed(250, pipe.get());
    for (std::size_t i = 0; i < kSlow; ++i)
        passed[i] = slow[i].get();
    SocketPair pair;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(sendWith(pair.near.get(), "x", passed));
        std::fill(passed.begin(), passed.end(), pipe.get());
        slow.clear();
    }
    HandMadePeer peer;
    ASSERT_TRUE(peer.connect(own_.termId()));
    ASSERT_TRUE(peer.send(peer.packet(Packet::Left), pair.far.get()));
    pair.far.reset();
    EXPECT_TRUE(peer.isDropped());
    EXPECT_SOON(peer.connect(own_.termId()) && openDescriptors("socket:") < before + kSlow / 2);
    expectThatAGoodOneIsWelcome();
    EXPECT_FALSE(log_.contains("accepts nobody"));
}

TEST_F(HandshakeTest, MoreThanThereIsRoomForIsNotClosedByWhoeverReceivesIt) {
    HandMadePeer peer;
    ASSERT_TRUE(peer.open(own_.termId()));
    std::vector<LingeringConnection> connections(6);
    {
        NoDescriptors const few(3);
        passAll(peer.socket.get(), peer.packet(Packet::NextRing, kUsualRing), connections);
        EXPECT_TRUE(peer.isDropped());
    }
    expectThatAGoodOneIsWelcome();
}

TEST(PacketTest, APeerThatHasNotReadAllIsHeardToTheEnd) {
    for (bool const dropped : {false, true}) {
        SocketPair pair;
        Packet const packet{kMagic, kProtocolVersion, Packet::Left, 0, 0, kLayoutCheck, 0};
        sendPacket(pair.near.get(), packet);
        sendPacket(pair.far.get(), packet);
        pair.far.reset();
        ReceivedPacket received;
        if (dropped)
            dropPackets(pair.near.get(), ::getpid());
        else
            EXPECT_EQ(receivePacket(pair.near.get(), received), Transfer::Done);
        EXPECT_EQ(receivePacket(pair.near.get(), received), Transfer::Closed);
        EXPECT_TRUE(isEmpty(pair.near.get()));
    }
}

TEST_F(HandshakeTest, AHelloAndANextRingWaitForDescriptors) {
    HandMadePeer peer;
    peer.makeSide();
    std::size_t const before = openDescriptors("socket:");
    ASSERT_TRUE(peer.connect(own_.termId()));
    ASSERT_SOON(openDescriptors("socket:") == before + 2);
    {
        NoDescriptors const none;
        peer.sayHello();
        EXPECT_TRUE(log_.waitFor("has no descriptor left to accept a connection"));
    }
    ASSERT_TRUE(peer.isWelcome());
    Descriptor const file = makeSealedFile(kUsualRing);  // the bytes in it are frames of nothing
    {
        NoDescriptors const none;
        peer.send(peer.packet(Packet::NextRing, kUsualRing), file.get());
        peer.put({0, kNextRing}, 24);
        EXPECT_TRUE(log_.waitFor("waits: no descriptor is left"));
    }
    EXPECT_TRUE(own_.waitForReceived(2));
    EXPECT_FALSE(log_.contains("closing the channel"));
}

TEST_F(HandshakeTest, WhoSaysNothingGivesWayToAHelloWhereDescriptorsHaveRunOut) {
    Acceptor::introductionLimit(1'000'000'000'000);
    HandMadePeer peer;
    peer.makeSide();
    std::size_t const before = openDescriptors("socket:");
    std::vector<Descriptor> silent;
    for (int i = 0; i < 8; ++i)
        silent.emplace_back(Rendezvous::instance().connectTo(own_.termId()));
    ASSERT_TRUE(peer.connect(own_.termId()));
    ASSERT_SOON(openDescriptors("socket:") == before + 2 * 9);
    NoDescriptors const none;
    peer.sayHello();
    EXPECT_TRUE(log_.waitFor("it never said Hello"));
    silent.clear();  // what the peer gets needs some, too
    ASSERT_TRUE(peer.isWelcome());
}

TEST_F(HandshakeTest, AChannelGivesWayWhereDescriptorsHaveRunOutWithTrafficAfterItsTurn) {
    for (bool const talks : {false, true}) {
        HandMadePeer settled;
        HandMadePeer newcomer;
        ASSERT_TRUE(settled.open(own_.termId()));
        newcomer.makeSide();
        std::size_t const before = openDescriptors("socket:");
        ASSERT_TRUE(newcomer.connect(own_.termId()));
        ASSERT_SOON(openDescriptors("socket:") == before + 2);
        std::atomic<bool> quiet{!talks};
        std::thread talker([&] {
            for (; !quiet; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
                settled.HandMadeLink::put("");
                settled.ring();
            }
        });
        {
            NoDescriptors const none;
            newcomer.sayHello();
            EXPECT_EQ(settled.nextKind(), Packet::Bye);
            EXPECT_TRUE(settled.isDropped()) << "it does not answer";
            quiet = true;
            talker.join();
            settled.hangUp();
            settled.peer = PeerSide();  // the newcomer needs some here, too
            EXPECT_TRUE(newcomer.isWelcome());
        }
        EXPECT_TRUE(log_.waitFor("does not answer", talks ? 2 : 1));
    }
}

/** What processes may have of a kind in a test. */
class LittleRoom {
public:
    LittleRoom(PeerShare::Kind kind, std::size_t bytes)
        : kind_(kind), before_(PeerShare::total(kind, bytes)) {}
    ~LittleRoom() { PeerShare::total(kind_, before_); }

private:
    PeerShare::Kind const kind_;
    std::size_t const before_;
};

TEST_F(HandshakeTest, WhatWaitsForOneProcessIsBoundedHoweverManyTerminationsItHas) {
    constexpr std::size_t kSize = 256 * 1024;
    constexpr std::uint32_t kMost = 32;
    LittleRoom const room(PeerShare::Kind::Unsent, kMost * kSize);
    TestTermination sender;
    ASSERT_EQ(sender.start(), 1);
    Peer other;
    ASSERT_TRUE(sender.waitUntilKnown(other.id()));
    ASSERT_TRUE(sender.ping(other.id(), 1));
    std::uint32_t taken = 0;
    {
        std::array<HandMadePeer, 4> peers;  // who take nothing
        for (HandMadePeer& peer : peers) {
            ASSERT_TRUE(peer.open(sender.termId()));
            for (std::uint32_t i = 0; sender.send(peer.from, TestHead::Numbered, i, kSize) == 1;
                 ++i)
                ASSERT_LE(++taken, kMost) << "no bound";
        }
        EXPECT_GE(taken, kMost / 2 - 1) << "half of it is for one";
        HandMadePeer late;
        EXPECT_EQ(sender.send(late.from, TestHead::Numbered, 0, kSize), 0);
        EXPECT_SOON(Switchboard::instance().find(sender.termId(), late.from) == nullptr)
            << "kept for nothing";
        ASSERT_TRUE(other.child().stopWholly());
        for (std::uint32_t i = 0; i < 8; ++i)
            EXPECT_EQ(sender.send(other.id(), TestHead::Numbered, i, kSize), 1)
                << "no room for others";
        other.child().signal(SIGCONT);
        EXPECT_TRUE(other.waitForReceived(8));
    }
    EXPECT_TRUE(sender.waitForReturned(taken));
    HandMadePeer again;
    ASSERT_TRUE(again.open(sender.termId()));
    for (std::uint32_t i = 0; i < kMost / 2 - 1; ++i)
        EXPECT_EQ(sender.send(again.from, TestHead::Numbered, i, kSize), 1) << "not given back";
}

TEST_F(HandshakeTest, ConnectionsOfOneProcessAreBoundedAndOthersFindRoom) {
    constexpr std::size_t kMost = 16;
    LittleRoom const room(PeerShare::Kind::Channels, kMost);
    std::array<HandMadePeer, kMost * 7 / 8> peers;
    for (HandMadePeer& peer : peers)
        ASSERT_TRUE(peer.open(own_.termId()));
    HandMadePeer refused;
    EXPECT_FALSE(refused.open(own_.termId()));
    EXPECT_TRUE(log_.contains("refused: its process has too many channels"));
    HandMadePeer asked;
    ASSERT_TRUE(own_.waitUntilKnown(asked.from));
    EXPECT_EQ(own_.send(asked.from, TestHead::Numbered, 0), 1);
    EXPECT_TRUE(own_.waitForReturned(1)) << "nor do we connect to it";
    Peer other;
    other.flood(own_.termId(), 1, 8);
    EXPECT_TRUE(own_.waitForReceived(1));
    peers[0].hangUp();  // one for the other process, one for the next
    peers[1].hangUp();
    EXPECT_SOON(HandMadePeer().open(own_.termId()));
}

TEST_F(HandshakeTest, NothingIsKeptOfAPeerWhileThereIsNothingToSay) {
    HandMadePeer peer;
    auto const isKept = [&] {
        return Switchboard::instance().find(own_.termId(), peer.from) != nullptr;
    };
    ASSERT_TRUE(peer.open(own_.termId()));
    EXPECT_TRUE(isKept());
    peer.hangUp();
    EXPECT_SOON(!isKept());
    ASSERT_TRUE(peer.connect(own_.termId()));
    EXPECT_TRUE(peer.send(peer.packet(Packet::Hello, kSmallestRing)));
    EXPECT_TRUE(log_.waitFor("its shared memory makes no sense"));
    EXPECT_SOON(!isKept());
    ASSERT_EQ(own_.send(peer.from, TestHead::Numbered, 0), 1);
    ASSERT_TRUE(peer.welcome());
    EXPECT_SOON(peer.wasSent() != 0);
    EXPECT_TRUE(isKept());
}

TEST_F(HandshakeTest, MessagesThatOneProcessNeverFinishesAreBoundedAndOthersWaitUntilThereIsRoom) {
    constexpr std::uint32_t kSize = 1024 * 1024;
    LittleRoom const room(PeerShare::Kind::Unfinished, 4 * kSize);
    std::array<HandMadePeer, 3> peers;
    auto const isTaken = [](HandMadePeer& peer) { return peer.peer.page().head.load() != 0; };
    auto const taken = [&] { return std::count_if(peers.begin(), peers.end(), isTaken); };
    for (HandMadePeer& peer : peers) {
        ASSERT_TRUE(peer.open(own_.termId()));
        peer.put({8, kSize}, 16);
    }
    EXPECT_SOON(taken() >= 2);
    for (int i = 0; i < 3; ++i)
        expectThatAGoodOneIsWelcome();
    ASSERT_EQ(taken(), 2) << "half of the room is for one process";
    Peer other;
    other.flood(own_.termId(), 1, 3 * kSize);
    EXPECT_TRUE(own_.waitForReceived(1)) << "another process may always send one";
    HandMadePeer leaving;
    ASSERT_TRUE(leaving.open(own_.termId()));
    ASSERT_EQ(own_.send(leaving.from, TestHead::Numbered, 0), 1);
    leaving.put({8, kSize}, 16);
    auto const left = std::chrono::steady_clock::now();
    leaving.hangUp();
    EXPECT_TRUE(own_.waitForReturned(1));
    EXPECT_TRUE(log_.contains("too much of its process is unfinished"));
    EXPECT_LT(std::chrono::steady_clock::now() - left, std::chrono::seconds(20));
    std::find_if(peers.begin(), peers.end(), isTaken)->hangUp();
    EXPECT_SOON(taken() == 3);
}

TEST_F(HandshakeTest, ManyMessagesOfOneThatHasEndedLetOthersIn) {
    constexpr std::uint32_t kMany = kSmallestRing / 8 - 1;
    HandMadePeer good;
    HandMadePeer noisy;
    std::atomic<TerminationId> last;
    TestTermination own;
    own.onReceive([&](AddressedMessage const& message) {
        if (own.tally().received == 1000)
            good.put({0, 0}, 8);
        last = message.originator();
        return true;
    });
    ASSERT_EQ(own.start(), 1);
    ASSERT_TRUE(good.open(own.termId()));
    ASSERT_TRUE(noisy.open(own.termId()));
    noisy.page().tail.store(8 * kMany);  // of nothing each
    noisy.hangUp();
    ASSERT_TRUE(own.waitForReceived(kMany + 1));
    EXPECT_EQ(last.load(), noisy.from) << "all of them came in one go";
}

TEST_F(HandshakeTest, WhoComesBackBeforeAllOfItsFormerChannelIsReadIsWelcomeAfterwards) {
    constexpr std::uint32_t kMany = kSmallestRing / 8 - 1;
    HandMadePeer peer;
    Gate sent;
    Gate back;
    TestTermination own;
    own.onReceive([&](AddressedMessage const&) {
        if (own.tally().received == 10) {
            EXPECT_TRUE(sent.wait());
            peer.hangUp();
            peer.comeBack(own.termId());
            back.open();
        }
        return true;
    });
    ASSERT_EQ(own.start(), 1);
    ASSERT_TRUE(peer.open(own.termId()));
    peer.put({0, 0}, 8 * kMany);
    sent.open();
    ASSERT_TRUE(back.wait());
    EXPECT_TRUE(peer.isWelcome());
    EXPECT_TRUE(own.waitForReceived(kMany));
}

TEST_F(HandshakeTest, WhoComesBackAndThenEndsItsFormerConnectionIsWelcome) {
    HandMadePeer peer;
    Gate sent;
    TestTermination own;
    own.onReceive([&](AddressedMessage const&) {
        EXPECT_TRUE(sent.wait());
        peer.comeBack(own.termId());
        peer.hangUpFormer();
        return true;
    });
    ASSERT_EQ(own.start(), 1);
    ASSERT_TRUE(peer.open(own.termId()));
    peer.put({0, 0}, 8);
    sent.open();
    ASSERT_TRUE(own.waitForReceived(1));
    EXPECT_TRUE(peer.isWelcome());
}

TEST_F(HandshakeTest, AShortageOfMemoryAtOneEventCostsNoOther) {
    HandMadePeer stranger;
    HandMadePeer quiet;
    HandMadePeer busy;
    TestTermination own;
    own.onReceive([&](AddressedMessage const& message) {
        if (message.originator() == busy.from && own.tally().received == 1) {
            EXPECT_TRUE(stranger.connect(own.termId()));
            quiet.put({0, 0}, 8);
            starve(1);
        }
        return true;
    });
    ASSERT_EQ(own.start(), 1);
    ASSERT_TRUE(quiet.open(own.termId()));
    ASSERT_TRUE(busy.open(own.termId()));
    busy.put({0, 0}, 8);
    ASSERT_TRUE(own.waitForReceived(1));
    ASSERT_SOON(quiet.mustRing());
    {
        Sated const sated;
        busy.put({0, 0}, 16);
        EXPECT_TRUE(own.waitForReceived(3));
    }
    EXPECT_TRUE(feed());
}

TEST_F(HandshakeTest, TheLowerIdWinsWhenBothSayHello) {
    HandMadePeer higher;
    ASSERT_LT(own_.termId(), higher.from);
    ASSERT_EQ(own_.send(higher.from, TestHead::Numbered, 0, 100), 1);
    higher.accept();
    EXPECT_EQ(higher.nextKind(), Packet::Hello);
    ASSERT_TRUE(higher.connect(own_.termId()));
    higher.sayHello();
    EXPECT_EQ(higher.nextKind(), Packet::Crossed);
}

TEST_F(HandshakeTest, WhoHangsUpIsTriedAgainAlsoWhenOthersHaveComeMeanwhile) {
    std::vector<HandMadePeer> hesitant(2);
    for (HandMadePeer& peer : hesitant) {
        ASSERT_EQ(own_.send(peer.from, TestHead::Numbered, 0, 100), 1);
        peer.accept();
        EXPECT_EQ(peer.nextKind(), Packet::Hello);
    }
    for (HandMadePeer& peer : hesitant)
        peer.hangUp();
    std::vector<HandMadePeer> others(4);
    for (HandMadePeer& peer : others)
        EXPECT_TRUE(peer.open(own_.termId()));
    for (HandMadePeer& peer : hesitant) {
        peer.accept();
        EXPECT_EQ(peer.nextKind(), Packet::Hello);
    }
}

TEST_F(HandshakeTest, WhoOffersToLeaveAndHasNotReadAllIsKept) {
    HandMadePeer peer;
    ASSERT_TRUE(peer.open(own_.termId()));
    ASSERT_EQ(own_.send(peer.from, TestHead::Numbered, 0), 1);
    peer.send(peer.packet(Packet::Bye));
    EXPECT_EQ(peer.nextKind(), Packet::Stay);
    peer.stopListening();
    peer.hangUp();
    EXPECT_TRUE(own_.waitForReturned(1));
}

TEST_F(HandshakeTest, WhatNobodyListensForComesBack) {
    HandMadePeer deaf;
    deaf.stopListening();
    ASSERT_EQ(own_.send(deaf.from, TestHead::Numbered, 0), 1);
    EXPECT_TRUE(own_.waitForReturned(1));
    EXPECT_TRUE(log_.waitFor("nobody listens there"));
}

TEST_F(HandshakeTest, IdleChannelsAreGivenBackAndMadeAgain) {
    Receiver::idleLookInterval(2'000'000);
    Peer child;
    TerminationId const peer = child.id();
    ASSERT_TRUE(own_.waitUntilKnown(peer));
    std::size_t const before = openBells();
    std::uint32_t number = 0;
    for (std::uint32_t round = 1; round <= 20; ++round) {
        ASSERT_TRUE(own_.ping(peer, round));
        // Some rounds meet the channel while it is being given back.
        if (round % 4 == 0)
            EXPECT_SOON(openBells() <= before);
        else
            std::this_thread::sleep_for(std::chrono::microseconds(1500 * round));
        for (int i = 0; i < 20; ++i)
            ASSERT_EQ(own_.send(peer, TestHead::Numbered, number++, 200), 1);
    }
    EXPECT_TRUE(own_.ping(peer, 1000)) << "the answer comes after all that was sent before";
    EXPECT_EQ(child.ask("report", "report"), "400 0 0 0");
    EXPECT_EQ(own_.tally().returned, 0u);
}

}  // namespace
}  // namespace transporttest
