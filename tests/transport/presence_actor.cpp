// A process with terminations that tests of presence tell what to do, line by line.
//
//   slot N, active N, axu N,N, actor NAME, directory PATH: answers "set yes" or "set no"
//   identity         answers "identity SLOT ACTIVE ACTOR AXU..."
//   seat GROUP       a termination takes its address; answers "seated ID", 0 when refused
//   show ID          it comes up; answers "shown yes" or "shown no"
//   greet ID TO      the same after it has said Hello; answers "greeted yes" if it is welcome
//   start GROUP      both; answers "started ID", 0 when refused
//   stop ID          answers "stopped"
//   churn KEEP N     starts KEEP, then stops and starts N times; answers "churned"
//   view             answers "view COUNT HASH AGREE ERRORS", see `view`
//   suspect ID       as if a channel to it had ended; answers "suspected"
//   withoutHandles   the kernel refuses process handles from now on; answers "without yes"
//   withoutRoom      the disk is full from now on for the folder's file; answers "without yes"
//   withoutProc      /proc is not mounted; answers "without yes"
//   starve GROUP     comes and goes while each allocation fails; answers "starved" and, when memory
//                    was all that was missing, "well"
//   linger           a forked child stays for a minute; answers "lingers"
//   daemonize        goes on in a forked child; answers "daemonized"
//   fork             a forked child tries everything; answers "forked CODE"
//   exec             becomes another program
//   inheritable      descriptors that exec would pass on; answers "inheritable N"
//   quit             ends without stopping anything
//
// Unless it churns, it prints "arrived" and "departed" with listener and termination.
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "ActorSide.h"
#include "AllocationCount.h"
#include "HandMadeLink.h"
#include "oswrap/OutOfMemory.h"
#include "platform/transport/IdentityValues.h"
#include "platform/transport/local/Rendezvous.h"
#include "transport/IdInfo.h"
#include "transport/TransportLayer.h"

namespace {

using testsupport::answer;
using Transport::Rendezvous;
using Transport::TerminationId;

std::atomic<bool> quiet{false};

/** Those that the channels have been told of: that comes before the departures. Never destroyed,
 * because notices come until the process ends. */
struct GoneOnes {
    std::mutex mutex;
    std::set<TerminationId> ids;  // guarded by mutex
}& gone = *new GoneOnes;

std::string hex(TerminationId id) {
    char text[12];
    std::snprintf(text, sizeof text, "%08x", id.value());
    return text;
}

/** One termination; keeps the notices told to it and counts those that should not have been. */
class Seat final : public Transport::PresenceListener {
public:
    explicit Seat(Transport::GroupId group) : id_(Rendezvous::instance().reserve(group, "seat")) {
        Rendezvous::instance().attach(*this);
    }
    ~Seat() {
        Rendezvous::instance().detach(*this);
        Rendezvous::instance().withdraw(id_);
        if (socket_ >= 0)
            ::close(socket_);
    }
    Seat(Seat const&) = delete;
    Seat& operator=(Seat const&) = delete;

    bool show() {
        socket_ = id_.value() != 0 ? Rendezvous::instance().publish(id_) : -1;
        return socket_ >= 0;
    }
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
    int socket_ = -1;
    mutable std::mutex mutex_;
    std::map<TerminationId, bool> present_;  // guarded by mutex_
    int errors_ = 0;                         // guarded by mutex_
};

using Seats = std::vector<std::unique_ptr<Seat>>;

/** Says Hello for a termination that nobody can have seen yet; whether it is heard when it comes.
 */
bool greetTooEarly(Seat& seat, TerminationId to) {
    testsupport::HandMadeLink link;
    link.from = seat.id();
    link.to = to;
    link.socket = Transport::Descriptor(Rendezvous::instance().connectTo(to));
    link.sayHello();
    if (!seat.show())
        return false;
    link.hear(30'000);
    return link.peer.valid();
}

std::unique_ptr<Seat> startSeat(unsigned group) {
    auto seat = std::make_unique<Seat>(static_cast<Transport::GroupId>(group));
    seat->show();
    return seat;
}

/** Count and hash of the ids known here, whether all notices agree, wrong notices so far. */
std::string view(Seats const& seats) {
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
    return std::to_string(known.size()) + " " + std::to_string(hash) +
           (agree ? " agree " : " differ ") + std::to_string(errors);
}

void churn(Seats& seats, std::size_t begin, std::size_t end, unsigned rounds) {
    std::minstd_rand random(static_cast<unsigned>(::getpid()));
    for (unsigned i = 0; i < rounds; ++i) {
        auto& seat = seats[begin + random() % (end - begin)];
        seat.reset();
        seat = startSeat(1 + i % 3);
    }
}

/** Two threads at the same time, each with its half of the seats. */
void churn(Seats& seats, unsigned keep, unsigned rounds) {
    quiet = true;
    for (unsigned i = 0; i < keep; ++i)
        seats.push_back(startSeat(1 + i % 3));
    std::thread other([&] { churn(seats, 0, keep / 2, rounds / 2); });
    churn(seats, keep / 2, keep, rounds - rounds / 2);
    other.join();
}

/** Runs `code` while the nth allocation from now on fails; whether there are so many. */
template <class Code>
bool starved(unsigned long n, Code const& code) {
    starve(n);
    {
        Sated const hungry(false);
        OSWrap::withMemory(code);
    }
    return feed();
}

/** A termination comes and goes, the only one of this process, while the nth allocation of each
 * step fails. False when more goes wrong than a step that changes nothing. */
bool comesAndGoesStarved(Transport::GroupId group, unsigned long n, bool& reached) {
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

std::string comeAndGoStarved(Transport::GroupId group) {
    bool well = true;
    bool reached = true;
    for (unsigned long n = 1; well && reached; ++n)
        well = comesAndGoesStarved(group, n, reached);
    return well ? "well" : "badly";
}

/** Has the kernel refuse a system call to this process. */
bool refuse(unsigned systemCall, unsigned error) {
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
void leaveChild() {
    if (::fork() != 0)
        return;
    for (int standard : {0, 1, 2})
        ::close(standard);
    ::sleep(60);
    ::_exit(0);
}

/** 0 when nothing of the transport does anything in a forked child. */
int forkChild(Seats const& seats) {
    pid_t const child = ::fork();
    if (child == 0) {
        Rendezvous& rendezvous = Rendezvous::instance();
        TerminationId const own = seats.front()->id();
        bool const nothing = rendezvous.reserve(3, "child").value() == 0 &&
                             rendezvous.publish(own) == -1 && !rendezvous.exists(own) &&
                             rendezvous.terminations().empty() && rendezvous.connectTo(own) == -1 &&
                             rendezvous.claim(own, ::getpid()) == Rendezvous::Claim::False;
        rendezvous.suspect(own);
        rendezvous.withdraw(own);
        ::_exit(nothing ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int countInheritable() {
    int count = 0;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int const number = std::atoi(entry.path().filename().c_str());
        int const flags = ::fcntl(number, F_GETFD);
        if (number > 2 && flags >= 0 && (flags & FD_CLOEXEC) == 0)
            ++count;
    }
    return count;
}

std::string identity() {
    auto const& info = Transport::IdInfo::instance();
    std::string line = std::to_string(info.getSlot()) + " " + std::to_string(info.activeSlot()) +
                       " " + info.getActor();
    for (int slot = 1; slot <= 255; ++slot)
        if (info.axuInSlot(static_cast<unsigned char>(slot)))
            line += " " + std::to_string(slot);
    return line + (info.isAxu() ? " axu" : "");
}

bool configure(std::string const& what, std::string const& value) {
    using Transport::Setup;
    std::vector<int> slots;
    std::istringstream numbers(value);
    for (std::string number; std::getline(numbers, number, ',');)
        slots.push_back(std::atoi(number.c_str()));
    return what == "slot"        ? Setup::slot(slots.at(0))
           : what == "active"    ? Setup::activeSlot(slots.at(0))
           : what == "actor"     ? Setup::actor(value)
           : what == "directory" ? Setup::directory(value)
                                 : Setup::axuSlots(slots);
}

/** The answer to a command, if it has any. */
std::string obey(std::string const& command, std::istringstream& words, Seats& seats) {
    std::string value;
    std::string other;
    words >> value >> other;
    auto const decimal = [&value] { return std::atoi(value.c_str()); };
    auto const idOf = [](std::string const& digits) {
        return TerminationId(static_cast<unsigned>(std::stoul(digits, nullptr, 16)));
    };
    auto const id = [&] { return idOf(value); };
    auto const seat = [&] {
        return std::find_if(seats.begin(), seats.end(),
                            [&](auto const& one) { return one->id() == id(); });
    };
    if (command == "seat") {
        seats.push_back(std::make_unique<Seat>(static_cast<Transport::GroupId>(decimal())));
        return "seated " + hex(seats.back()->id());
    }
    if (command == "show")
        return (*seat())->show() ? "shown yes" : "shown no";
    if (command == "greet")
        return greetTooEarly(**seat(), idOf(other)) ? "greeted yes" : "greeted no";
    if (command == "start") {
        seats.push_back(startSeat(static_cast<unsigned>(decimal())));
        return "started " + hex(seats.back()->id());
    }
    if (command == "stop") {
        seats.erase(seat());
        return "stopped";
    }
    if (command == "starve")
        return "starved " + comeAndGoStarved(static_cast<Transport::GroupId>(decimal()));
    if (command == "churn") {
        churn(seats, static_cast<unsigned>(decimal()), static_cast<unsigned>(std::stoul(other)));
        return "churned";
    }
    if (command == "suspect") {
        Rendezvous::instance().suspect(id());
        return "suspected";
    }
    if (command == "daemonize") {
        if (::fork() != 0)
            ::_exit(0);
        return "daemonized";
    }
    if (command == "exec")
        ::execl("/bin/sleep", "sleep", "1000", nullptr);
    if (command == "view")
        return "view " + view(seats);
    if (command == "withoutHandles")
        return refuse(434, ENOSYS) ? "without yes" : "without no";  // pidfd_open everywhere
    if (command == "withoutRoom")
        return refuse(SYS_pwrite64, ENOSPC) ? "without yes" : "without no";
    if (command == "withoutProc")
        return hideProc() ? "without yes" : "without no";
    if (command == "linger") {
        leaveChild();
        return "lingers";
    }
    if (command == "fork")
        return "forked " + std::to_string(forkChild(seats));
    if (command == "inheritable")
        return "inheritable " + std::to_string(countInheritable());
    if (command == "identity")
        return "identity " + identity();
    return configure(command, value) ? "set yes" : "set no";
}

}  // namespace

int main() {
    Sated const sated;
    Rendezvous::instance().goneHook([](TerminationId id) {
        std::lock_guard<std::mutex> const lock(gone.mutex);
        gone.ids.insert(id);
    });
    // Those not stopped live until the process ends; static, so that no leak is suspected.
    static Seats& seats = *new Seats;
    testsupport::obeyLines([](std::string const& command, std::istringstream& words) {
        if (command != "quit")
            answer(obey(command, words, seats));
        return command != "quit";
    });
}
