// A process with terminations that the transport's tests tell what to do, line by line. Ids are
// hexadecimal. Unless it churns, it prints "arrived" and "departed" with listener and termination.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <random>

#include "ActorSide.h"
#include "AllocationCount.h"
#include "HandMadeLink.h"
#include "TestTermination.h"
#include "Threads.h"
#include "oswrap/OutOfMemory.h"
#include "transport/IdInfo.h"
#include "transport/TransportLayer.h"

namespace {

using testsupport::answer;
using Transport::GroupId;
using Transport::Rendezvous;
using Transport::Setup;
using Transport::TerminationId;
using transporttest::hex;
using transporttest::TestHead;
using transporttest::TestTermination;

std::atomic<bool> quiet{false};

/** Those that the channels have been told of: that comes before the departures. Never destroyed,
 * because notices come until the process ends. */
struct GoneOnes {
    std::mutex mutex;
    std::set<TerminationId> ids;  // guarded by mutex
}& gone = *new GoneOnes;

/** As it stands in a command. */
struct Id : TerminationId {
    using TerminationId::TerminationId;
    friend std::istream& operator>>(std::istream& words, Id& id) {
        unsigned int value = 0;
        words >> std::hex >> value >> std::dec;
        id = Id(value);
        return words;
    }
};

// ---- Terminations that are entries only ---------------------------------------------------------

/** One of them; keeps the notices told to it and counts those that should not have been. */
class Seat final : public Transport::PresenceListener {
public:
    explicit Seat(GroupId group) : Seat(Rendezvous::instance().reserve(group, "seat")) {}
    /** Of an address that it has. */
    explicit Seat(TerminationId id) : id_(id) { Rendezvous::instance().attach(*this); }
    ~Seat() {
        Rendezvous::instance().detach(*this);
        Rendezvous::instance().withdraw(id_);
    }
    Seat(Seat const&) = delete;
    Seat& operator=(Seat const&) = delete;

    bool show() {
        if (id_.value() != 0)
            socket_ = Transport::Descriptor(Rendezvous::instance().publish(id_));
        return socket_.valid();
    }
    void shown(Transport::OpenSocket socket) { socket_ = Transport::Descriptor(socket.release()); }
    TerminationId id() const { return id_; }
    int errors() const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return errors_;
    }
    /** Whether the notices add up to what the tables say. */
    bool agrees(std::list<TerminationId> const& known) const {
        std::lock_guard<std::mutex> const lock(mutex_);
        std::list<TerminationId> told;
        for (auto const& [id, present] : present_)
            if (present)
                told.push_back(id);
        return told == known;
    }

private:
    void arrived(TerminationId id) override { note("arrived ", id, true); }
    void departed(TerminationId id) override { note("departed ", id, false); }

    /** Each id arrives at most once, and departs once, also without having arrived. */
    void note(char const* what, TerminationId id, bool present) {
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            auto const [entry, isNew] = present_.emplace(id, present);
            if (!isNew && (present || !entry->second))
                ++errors_;
            std::lock_guard<std::mutex> const lockOfGone(gone.mutex);
            if (!present && (gone.ids.count(id) == 0 || Rendezvous::instance().exists(id)))
                ++errors_;
            entry->second = present;
        }
        if (!quiet)
            answer(what, hex(id_), " ", hex(id));
    }

    TerminationId const id_;
    Transport::Descriptor socket_;
    mutable std::mutex mutex_;
    std::map<TerminationId, bool> present_;  // guarded by mutex_
    int errors_ = 0;                         // guarded by mutex_
};

/** Those not stopped live until the process ends; never destroyed. */
auto& seats = *new std::vector<std::unique_ptr<Seat>>;

Seat& reserveSeat(unsigned int group) {
    return *seats.emplace_back(std::make_unique<Seat>(static_cast<GroupId>(group)));
}

auto seatOf(TerminationId id) {
    return std::find_if(seats.begin(), seats.end(),
                        [&](auto const& one) { return one->id() == id; });
}

std::string start(unsigned int group) {
    Seat& seat = reserveSeat(group);
    seat.show();
    return "id " + hex(seat.id());
}

/** Takes addresses that were given elsewhere, and shows them all at once; whether all could be had.
 */
bool adopt(std::vector<TerminationId> const& ids, Transport::Visibility visibility) {
    Rendezvous& rendezvous = Rendezvous::instance();
    for (TerminationId const id : ids)
        if (!rendezvous.adopt(id, "elsewhere", "", visibility))
            return false;
    std::vector<Transport::OpenSocket> sockets = rendezvous.publish(ids);
    for (std::size_t i = 0; i < ids.size(); ++i)
        seats.emplace_back(std::make_unique<Seat>(ids[i]))->shown(std::move(sockets[i]));
    return std::all_of(ids.begin(), ids.end(), [&](auto id) { return rendezvous.exists(id); });
}

/** Says Hello for a termination that nobody can have seen yet; whether it is heard when it comes,
 * though it has been looked at before: as another one who has come behind it. */
bool greetTooEarly(Seat& seat, TerminationId to) {
    using testsupport::HandMadeLink;
    auto link = HandMadeLink::between(seat.id(), to, Rendezvous::instance().connectTo(to));
    link.sayHello();
    auto behind = HandMadeLink::between(seat.id(), to, Rendezvous::instance().connectTo(to));
    behind.send(behind.packet(Transport::Packet::Bye));
    behind.hear(30'000);
    if (!behind.ended || !seat.show())
        return false;
    link.hear(30'000);
    return link.peer.valid();
}

void view() {
    auto const known = Transport::TransportLayer::instance().getTerminations();
    unsigned long long hash = 14695981039346656037u;
    for (TerminationId const id : known)
        hash = (hash ^ id.value()) * 1099511628211u;
    bool agree = true;
    int errors = 0;
    for (auto const& seat : seats) {
        agree = agree && seat->agrees(known);
        errors += seat->errors();
    }
    answer("view ", known.size(), " ", hash, agree ? " agree " : " differ ", errors);
}

/** Replaces seats of a range by new ones. */
void replaceSome(std::size_t begin, std::size_t end, unsigned int rounds) {
    std::minstd_rand random(static_cast<unsigned>(::getpid()));
    for (unsigned int i = 0; i < rounds; ++i) {
        auto& seat = seats[begin + random() % (end - begin)];
        seat.reset();
        seat = std::make_unique<Seat>(static_cast<GroupId>(1 + i % 3));
        seat->show();
    }
}

/** Two threads at the same time, each with its half of the seats. */
void churn(unsigned int keep, unsigned int rounds) {
    quiet = true;
    for (unsigned int i = 0; i < keep; ++i)
        reserveSeat(1 + i % 3).show();
    std::thread other([&] { replaceSome(0, keep / 2, rounds / 2); });
    replaceSome(keep / 2, keep, rounds - rounds / 2);
    other.join();
    answer("churned");
}

// ---- Without memory -----------------------------------------------------------------------------

/** Runs `code` while the nth allocation from now on fails; whether there are so many. */
bool starved(unsigned long n, std::function<void()> const& code) {
    starve(n);
    {
        Sated const hungry(false);
        OSWrap::withMemory(code);
    }
    return feed();
}

/** A termination comes and goes, the only one of this process, while the nth allocation of each
 * step fails. False when more goes wrong than a step that changes nothing. */
bool comesAndGoesStarved(GroupId group, unsigned long n, bool& reached) {
    Rendezvous& rendezvous = Rendezvous::instance();
    TerminationId id;
    int socket = -1;
    reached = starved(n, [&] { id = rendezvous.reserve(group, "starved"); });
    if (id.value() == 0)
        id = rendezvous.reserve(group, "starved");
    reached = starved(n, [&] { socket = rendezvous.publish(id); }) || reached;
    if (socket < 0)
        socket = rendezvous.publish(id);
    bool const wasThere = socket >= 0 && rendezvous.exists(id);
    reached = starved(n, [&] { rendezvous.withdraw(id); }) || reached;
    ::close(socket);
    return wasThere && rendezvous.terminations().empty();
}

bool comeAndGoStarved(unsigned int group) {
    bool well = true;
    bool reached = true;
    for (unsigned long n = 1; well && reached; ++n)
        well = comesAndGoesStarved(static_cast<GroupId>(group), n, reached);
    return well;
}

// ---- What befalls the process -------------------------------------------------------------------

/** Has the kernel refuse a system call to this process. */
bool refuse(unsigned int systemCall, unsigned int error) {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, systemCall, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog const filter{sizeof program / sizeof program[0], program};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

/** Puts an empty file system over /proc, which this process alone sees. */
bool hideProc() {
    return (::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "/proc", "tmpfs", 0, nullptr) == 0;
}

/** Keeps all descriptors of this process open, but for those that its parent waits at. */
bool leaveChild() {
    if (::fork() != 0)
        return true;
    for (int standard : {0, 1, 2})
        ::close(standard);
    ::sleep(60);
    ::_exit(0);
}

/** Goes on in a forked child. */
bool daemonize() {
    if (::fork() != 0)
        ::_exit(0);
    return true;
}

/** Whether nothing of the transport does anything in a forked child. */
bool childDoesNothing() {
    return testsupport::holdsInForkedChild([] {
        Rendezvous& rendezvous = Rendezvous::instance();
        TerminationId const own = seats.front()->id();
        bool const nothing = rendezvous.reserve(3, "child").value() == 0 &&
                             rendezvous.publish(own) == -1 && !rendezvous.exists(own) &&
                             rendezvous.terminations().empty() && rendezvous.connectTo(own) == -1 &&
                             rendezvous.claim(own, ::getpid()) == Rendezvous::Claim::False;
        rendezvous.suspect(own);
        rendezvous.withdraw(own);
        return nothing;
    });
}

void countInheritable() {
    int count = 0;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int const number = std::atoi(entry.path().filename().c_str());
        int const flags = ::fcntl(number, F_GETFD);
        if (number > 2 && flags >= 0 && (flags & FD_CLOEXEC) == 0)
            ++count;
    }
    answer("inheritable ", count);
}

// ---- Who the process is -------------------------------------------------------------------------

std::string identity() {
    auto const& info = Transport::IdInfo::instance();
    std::string line = "identity " + std::to_string(info.getSlot()) + " " +
                       std::to_string(info.activeSlot()) + " " + info.getActor();
    for (int slot = 1; slot <= 255; ++slot)
        if (info.axuInSlot(static_cast<unsigned char>(slot)))
            line += " " + std::to_string(slot);
    return line + (info.isAxu() ? " axu" : "");
}

std::vector<int> slotsIn(std::string const& list) {
    std::vector<int> slots;
    std::istringstream numbers(list);
    for (std::string number; std::getline(numbers, number, ',');)
        slots.push_back(std::atoi(number.c_str()));
    return slots;
}

// ---- A termination that sends and receives ------------------------------------------------------

TestTermination& own() {
    static TestTermination own("peer");
    return own;
}

std::map<TerminationId, std::uint32_t> accepted;

void flood(Id peer, std::uint32_t count, std::size_t size) {
    std::uint32_t& taken = accepted[peer];
    own().waitUntilKnown(peer);
    for (std::uint32_t i = 0; i < count; ++i)
        taken += own().send(peer, TestHead::Numbered, taken, size) == 1;
}

bool reaches(Id peer) {
    static std::uint32_t pings = 0;
    return own().waitUntilKnown(peer) && own().ping(peer, ++pings);
}

void countMet() {
    answer("met ", Transport::TransportLayer::instance().getTerminations().size(), " ",
           own().countGone());
}

void report() {
    auto const tally = own().tally();
    answer("report ", tally.received, " ", tally.faults, " ", tally.returned, " ",
           tally.returnedFaults);
}

// ---- The commands -------------------------------------------------------------------------------

using Text = std::string;

std::string idOf(TerminationId id) {
    return "id " + hex(id);
}

testsupport::Commands const commands{
    {"slot", Setup::slot},
    {"active", Setup::activeSlot},
    {"actor", [](Text name) { return Setup::actor(name); }},
    {"directory", [](Text path) { return Setup::directory(path); }},
    {"axu", [](Text slots) { return Setup::axuSlots(slotsIn(slots)); }},
    // "identity SLOT ACTIVE ACTOR AXU..."
    {"identity", identity},
    // A termination of a group takes its address; its "id", 0 when refused.
    {"seat", [](unsigned int group) { return idOf(reserveSeat(group).id()); }},
    {"show", [](Id id) { return (*seatOf(id))->show(); }},
    // The same after it has said Hello to somebody; whether it is welcome.
    {"greet", [](Id id, Id to) { return greetTooEarly(**seatOf(id), to); }},
    // Takes its address and comes up.
    {"start", start},
    {"stop", [](Id id) { return seats.erase(seatOf(id)), true; }},
    // Becomes the link to other machines: "linking", 0 when done, 1 when there is another one.
    {"link",
     [] {
         return "linking " + std::to_string(static_cast<int>(Rendezvous::instance().becomeLink()));
     }},
    // Shows two terminations of other machines, or one that is silent; whether that is done.
    {"members",
     [](Id one, Id other) {
         return adopt({one, other}, Transport::Visibility::Member);
     }},
    {"silent", [](Id id) { return adopt({id}, Transport::Visibility::Silent); }},
    {"exists", [](Id id) { return Rendezvous::instance().exists(id); }},
    // Starts some, then replaces so many of them; "churned".
    {"churn", churn},
    // "view COUNT HASH AGREE ERRORS": number and hash of the ids known here, whether all notices
    // agree with them, wrong notices so far.
    {"view", view},
    // As if a channel to it had ended.
    {"suspect", [](Id id) { return Rendezvous::instance().suspect(id), true; }},
    // One comes and goes while each allocation fails; whether memory was all that was missing.
    {"starve", comeAndGoStarved},
    // The kernel refuses process handles from now on: pidfd_open, by its number everywhere.
    {"withoutHandles", [] { return refuse(434, ENOSYS); }},
    // The disk is full from now on for the folder's file.
    {"withoutRoom", [] { return refuse(SYS_pwrite64, ENOSPC); }},
    {"withoutProc", hideProc},
    // A forked child stays for a minute.
    {"linger", leaveChild},
    {"daemonize", daemonize},
    // Whether a forked child can do nothing.
    {"fork", childDoesNothing},
    // Becomes another program.
    {"exec", [] { ::execl("/bin/sleep", "sleep", "1000", nullptr); }},
    // "inheritable N": descriptors that exec would pass on
    {"inheritable", countInheritable},
    // Ends without stopping anything.
    {"quit", [] { return testsupport::End(); }},
    // One termination that answers Echo and checks Numbered messages; its "id".
    {"join", [] { return idOf(own().start() == 1 ? own().termId() : TerminationId()); }},
    // Sends Numbered messages of a size, counted from 0.
    {"flood", flood},
    // "accepted COUNT": how many have been sent to one
    {"accepted", [](Id peer) { answer("accepted ", accepted[peer]); }},
    // Whether an Echo is answered.
    {"ping", reaches},
    // "met KNOWN GONE": how many are there, and how many have gone
    {"met", countMet},
    // How often each number of another one has come, or has come back; see TestTermination
    {"came", [](Id from) { answer("came", own().came(from)); }},
    {"back", [](Id to) { answer("back", own().back(to)); }},
    // "report RECEIVED FAULTS RETURNED DAMAGED" (of those returned)
    {"report", report}};

}  // namespace

int main() {
    Sated const sated;
    Rendezvous::instance().goneHook([](TerminationId id, Rendezvous::Whose) {
        std::lock_guard<std::mutex> const lock(gone.mutex);
        gone.ids.insert(id);
    });
    testsupport::obeyLines(commands);
}
