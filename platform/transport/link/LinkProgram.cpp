// reflectorb-link: lets the terminations of this machine and those of others reach each other.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <optional>

#include "logging/Log.h"
#include "oswrap/Clock.h"
#include "platform/transport/link/Exchange.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Switchboard.h"
#include "transport/IdInfo.h"

namespace {

constexpr char const* kSource = "LinkProgram";

enum ExitCode { kDone = 0, kUsage = 2, kSlotTaken = 3, kSecondLink = 4 };

constexpr int kRetryMilliseconds = 1000;
/** Who begins looks so long who is there, and waits so long for one of its slot who may be gone. */
constexpr int kLookMilliseconds = 700;
constexpr int kRivalMilliseconds = 3000;

struct Options {
    Link::BusOptions bus;
    std::vector<int> groups = {3};
    std::string machine;
    bool open = false;
};

/** Written by any thread that has something for the control thread. */
int wakeDescriptor = -1;

void wake() {
    eventfd_write(wakeDescriptor, 1);
}

std::string machineId() {
    std::ifstream file("/etc/machine-id");
    std::string id;
    file >> id;
    return id;
}

bool isLoopback(std::string const& interface) {
    return interface == "lo" || interface.rfind("127.", 0) == 0;
}

/** The program's life on its main thread, which is the control thread. */
class Program {
public:
    explicit Program(Options options) : options_(std::move(options)) {
        own_.epoch = Link::randomToken();
        own_.slot = Transport::IdInfo::instance().getSlot();
        own_.machine = options_.machine;
    }
    int run();

private:
    enum class Waited { TimePassed, Ended };

    std::bitset<256> groups() const;
    bool openBus();
    std::optional<int> awaitSlot();
    int stay();
    Waited wait(int milliseconds);
    bool takeSignals();

    Options const options_;
    Link::UnitInfo own_;
    int signals_ = -1;
    std::unique_ptr<Link::Exchange> exchange_;
    std::unique_ptr<Link::Bus> bus_;  // tells the exchange
};

std::bitset<256> Program::groups() const {
    std::bitset<256> all;
    for (int const group : options_.groups)
        all.set(static_cast<std::size_t>(group));
    return all;
}

/** Signals are for the control thread alone; every thread that is made inherits that. */
int Program::run() {
    sigset_t mask;
    sigemptyset(&mask);
    for (int const signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1})
        sigaddset(&mask, signal);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    signals_ = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    Transport::Switchboard::instance();
    switch (Transport::Rendezvous::instance().becomeLink()) {
        case Transport::Rendezvous::Linking::Done:
            break;
        case Transport::Rendezvous::Linking::Taken:
            return kSecondLink;
        case Transport::Rendezvous::Linking::Failed:
            return kUsage;
    }
    exchange_ = std::make_unique<Link::Exchange>(own_, groups(), wake);
    if (!openBus())
        return kDone;
    std::optional<int> const over = awaitSlot();
    return over ? *over : stay();
}

/** False when the program is to end before there is a bus. */
bool Program::openBus() {
    for (;;) {
        bus_ = Link::Bus::open(options_.bus, own_, *exchange_);
        if (bus_ != nullptr)
            return true;
        if (wait(kRetryMilliseconds) == Waited::Ended)
            return false;
    }
}

/** Nothing when the slot is ours; otherwise what the program is to end with. */
std::optional<int> Program::awaitSlot() {
    if (wait(kLookMilliseconds) == Waited::Ended)
        return kDone;
    exchange_->control();
    for (int i = 0; i < kRivalMilliseconds / 100 && !exchange_->rival().empty(); ++i) {
        if (wait(100) == Waited::Ended)
            return kDone;
        exchange_->control();
    }
    if (exchange_->rival().empty())
        return std::nullopt;
    REFLECTORB_LOG(3, kSource, "machine %s has slot %u: this one, %s, needs another",
                   exchange_->rival().c_str(), unsigned{own_.slot}, own_.machine.c_str());
    return kSlotTaken;
}

int Program::stay() {
    exchange_->join(*bus_);
    bus_->announce();
    REFLECTORB_LOG(5, kSource, "slot %u, machine %s, is linked over %s", unsigned{own_.slot},
                   own_.machine.c_str(), options_.bus.interface.c_str());
    auto verdict = Link::Exchange::Verdict::GoOn;
    while (verdict == Link::Exchange::Verdict::GoOn && wait(-1) != Waited::Ended)
        verdict = exchange_->control();
    exchange_->tellSettled();
    bus_->retire();
    exchange_->leave();
    bus_.reset();
    return verdict == Link::Exchange::Verdict::Yield ? kSlotTaken : kDone;
}

/** For a time, or, when that is negative, until something has happened. */
Program::Waited Program::wait(int milliseconds) {
    long long const until =
        OSWrap::Clock::nowNanoseconds() + static_cast<long long>(milliseconds) * 1'000'000;
    for (;;) {
        long long const left = (until - OSWrap::Clock::nowNanoseconds()) / 1'000'000;
        if (milliseconds >= 0 && left <= 0)
            return Waited::TimePassed;
        pollfd both[] = {{signals_, POLLIN, 0}, {wakeDescriptor, POLLIN, 0}};
        poll(both, 2, milliseconds < 0 ? -1 : static_cast<int>(left));
        if ((both[0].revents & POLLIN) != 0 && takeSignals())
            return Waited::Ended;
        if (milliseconds < 0 && (both[1].revents & POLLIN) != 0) {
            eventfd_t count = 0;
            eventfd_read(wakeDescriptor, &count);
            return Waited::TimePassed;
        }
        if (milliseconds >= 0 && (both[1].revents & POLLIN) != 0) {
            timespec const pause{0, 10'000'000};
            nanosleep(&pause, nullptr);  // what has happened waits
        }
    }
}

/** True when one of them ends the program. */
bool Program::takeSignals() {
    signalfd_siginfo info{};
    while (read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo != SIGUSR1)
            return true;
        exchange_->logFigures();
    }
    return false;
}

void describe(CLI::App& app, Options& options) {
    app.add_option("--interface", options.bus.interface, "network interface, by name or address")
        ->required();
    app.add_option("--peers", options.bus.peers,
                   "addresses of the other machines, where the network has no multicast")
        ->delimiter(',');
    app.add_option("--domain", options.bus.domain, "the links of one number see each other")
        ->check(CLI::Range(0, 230))
        ->capture_default_str();
    app.add_option("--groups", options.groups, "groups whose terminations all machines see")
        ->delimiter(',')
        ->check(CLI::Range(1, 255))
        ->capture_default_str();
    app.add_option("--machine", options.machine,
                   "name of this machine, another for each; default: /etc/machine-id");
    app.add_option("--fragment", options.bus.fragment, "bytes of a datagram")
        ->check(CLI::Range(512, 65000))
        ->capture_default_str();
    app.add_flag("--open", options.open,
                 "let everybody on the network join, read and send: there is no authentication");
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app(
        "Links this machine's rendezvous folder (TRANSPORT_DIR) and slot (TRANSPORT_SLOT) "
        "with those of other machines.",
        "reflectorb-link");
    describe(app, options);
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    if (options.machine.empty())
        options.machine = machineId();
    if (options.machine.empty()) {
        std::fprintf(stderr, "reflectorb-link: no /etc/machine-id: give --machine NAME\n");
        return kUsage;
    }
    if (!options.open && !isLoopback(options.bus.interface)) {
        std::fprintf(stderr,
                     "reflectorb-link: whoever reaches %s could join, read and send everything, "
                     "since links do not authenticate each other: say --open if that is meant\n",
                     options.bus.interface.c_str());
        return kUsage;
    }
    return Program(std::move(options)).run();
}
