// reflectorb-link: lets the terminations of this machine and those of others reach each other.
#include <algorithm>
#include <limits>
#include <optional>

#include "logging/Log.h"
#include "oswrap/Clock.h"
#include "oswrap/OutOfMemory.h"
#include "platform/transport/Identity.h"
#include "platform/transport/link/ControlLoop.h"
#include "platform/transport/link/Exchange.h"
#include "platform/transport/link/LinkOptions.h"
#include "platform/transport/link/Status.h"
#include "platform/transport/link/UsualInterface.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Switchboard.h"
#include "reflect/TreflectProcessObject.h"
#include "transport/IdInfo.h"

namespace {

constexpr char const* kSource = "LinkProgram";

using Link::ControlLoop;
using Waited = ControlLoop::Waited;
using Link::kDone;
using Link::kSecondLink;
using Link::kSlotTaken;
using Link::kUsage;

constexpr int kRetryMilliseconds = 1000;
/** Who begins looks so long who is there, and waits so long for one of its slot who may be gone. */
constexpr int kLookMilliseconds = 700;
constexpr int kRivalMilliseconds = 3000;

/** Channels without traffic are given back by their other ends. If a proxy did that, and had to go
 * before it was answered, what was sent to it meanwhile would be read by nobody, and not come back.
 */
constexpr long long kNoIdleLooks = std::numeric_limits<long long>::max() / 2;

/** Woken by any thread that has something for the control thread. */
ControlLoop const* controlLoop = nullptr;

void wake() {
    controlLoop->wake();
}

/** The lesser of two times, of which a negative one is none. */
int sooner(int one, int other) {
    return one < 0 || other < 0 ? std::max(one, other) : std::min(one, other);
}

/** The program's life on its main thread, which is the control thread. */
class Program final : public Link::ControlListener {
public:
    Program(Link::LinkOptions options, Transport::IdentitySnapshot const& identity);
    int run();

    // ---- ControlListener ----
    void logFigures() override { exchange_.logFigures(); }
    std::string status() override;
    Link::Health health() override;
    long long oldestDebt() override { return exchange_.oldestDebt(); }

private:
    std::bitset<256> groups() const;
    bool openBus();
    char const* tryBus();
    std::optional<int> awaitSlot();
    std::optional<int> liveOnBus();
    std::optional<int> stay();
    std::optional<int> linked();
    void tellState(std::string const& state);
    void tellStopping();

    Link::LinkOptions const options_;
    std::string const folder_;
    Link::UnitInfo own_;  // another epoch on each bus
    long long const began_ = OSWrap::Clock::nowNanoseconds();
    std::string state_ = "begins";
    bool isStopping_ = false;  // and the service manager knows
    std::string interface_;    // that the bus uses, or waits for; empty: none is known
    Link::Validity validity_;
    ControlLoop loop_{*this};
    Link::Exchange exchange_;
    std::unique_ptr<Link::Bus> bus_;  // tells the exchange
};

Link::UnitInfo ownUnit(Link::LinkOptions const& options,
                       Transport::IdentitySnapshot const& identity) {
    return {0, identity.slot, options.machine};
}

Program::Program(Link::LinkOptions options, Transport::IdentitySnapshot const& identity)
    : options_(std::move(options)),
      folder_(identity.directory),
      own_(ownUnit(options_, identity)),
      exchange_(own_, groups(), wake) {
    controlLoop = &loop_;
}

std::bitset<256> Program::groups() const {
    std::bitset<256> all;
    for (int const group : options_.groups)
        all.set(static_cast<std::size_t>(group));
    return all;
}

int Program::run() {
    Transport::Switchboard::instance();
    switch (Transport::Rendezvous::instance().becomeLink()) {
        case Transport::Rendezvous::Linking::Done:
            break;
        case Transport::Rendezvous::Linking::Taken:
            return kSecondLink;
        case Transport::Rendezvous::Linking::Failed:
            return kUsage;
    }
    loop_.openTo(folder_);
    TreflectProcessObject const shown;  // to tools: the link uses the broker as any program does
    loop_.tellReady();
    std::optional<int> over;
    while (!over) {
        if (!OSWrap::withMemory([&] { over = liveOnBus(); })) {
            OSWrap::withMemory([&] { exchange_.leave(); });
            OSWrap::awaitMemory();
        }
        bus_.reset();
    }
    tellStopping();
    return *over;
}

/** What the program is to end with; nothing when it is to begin anew. */
std::optional<int> Program::liveOnBus() {
    std::optional<int> const over = openBus() ? awaitSlot() : kDone;
    return over ? over : stay();
}

void Program::tellStopping() {
    if (!std::exchange(isStopping_, true))
        loop_.service().tell("STOPPING=1");
}

void Program::tellState(std::string const& state) {
    if (std::exchange(state_, state) != state)
        loop_.tellStatus(state);
}

/** False when the program is to end before there is a bus. */
bool Program::openBus() {
    while (char const* const lack = tryBus()) {
        tellState(std::string("waits for its ") + lack);
        if (loop_.waitFor(kRetryMilliseconds) == Waited::Ended)
            return false;
    }
    return true;
}

/** What it lacks; null when there is a bus. */
char const* Program::tryBus() {
    Link::BusOptions options = options_.bus;
    if (options.interface.empty())
        options.interface = Link::usualInterface();
    interface_ = options.interface;
    if (!validity_.renew(options.security))
        return "certificate";
    if (interface_.empty())
        return "interface";
    own_.epoch = Link::randomToken();
    exchange_.beginAnew(own_.epoch);
    Link::Bus::Opened opened = Link::Bus::open(options, own_, exchange_);
    bus_ = std::move(opened.bus);
    if (bus_ != nullptr)
        return nullptr;
    return opened.refused ? "certificate" : "interface";
}

/** Nothing when the slot is ours; otherwise what the program is to end with. */
std::optional<int> Program::awaitSlot() {
    tellState("looks who has its slot");
    if (loop_.waitFor(kLookMilliseconds) == Waited::Ended)
        return kDone;
    exchange_.control();
    for (int i = 0; i < kRivalMilliseconds / 100 && !exchange_.rival().empty(); ++i) {
        if (loop_.waitFor(100) == Waited::Ended)
            return kDone;
        exchange_.control();
    }
    if (exchange_.rival().empty())
        return std::nullopt;
    REFLECTORB_LOG(3, kSource, "machine %s has slot %u: this one, %s, needs another",
                   exchange_.rival().c_str(), unsigned{own_.slot}, own_.machine.c_str());
    return kSlotTaken;
}

/** Once the slot is ours; likewise. */
std::optional<int> Program::stay() {
    exchange_.join(*bus_);
    if (!bus_->announce()) {
        REFLECTORB_LOG(3, kSource, "cannot tell the others of this machine: tries again");
        exchange_.leave();
        bool const ends = loop_.waitFor(kRetryMilliseconds) == Waited::Ended;
        return ends ? std::optional<int>(kDone) : std::nullopt;
    }
    REFLECTORB_LOG(5, kSource, "slot %u, machine %s, is linked over %s", unsigned{own_.slot},
                   own_.machine.c_str(), interface_.c_str());
    tellState("runs");
    std::optional<int> const over = linked();
    if (over)
        tellStopping();
    tellState(over ? "ends" : "begins anew");
    OSWrap::withMemory([this] { exchange_.tellSettled(); });  // else `over` would be forgotten
    bus_->retire();
    exchange_.leave();
    return over;
}

/** As long as this machine is to be linked; likewise. */
std::optional<int> Program::linked() {
    while (!validity_.isOver()) {
        int const strangers = bus_->tellStrangers(), validity = validity_.askAgainIn();
        int const unmet = exchange_.hasUnmet() ? kRetryMilliseconds : -1;
        if (loop_.waitForWork(sooner(unmet, sooner(strangers, validity))) == Waited::Ended)
            return kDone;
        Link::Exchange::Verdict verdict = Link::Exchange::Verdict::GoOn;
        if (!OSWrap::withMemory([&] { verdict = exchange_.control(); })) {
            OSWrap::awaitMemory();
            return std::nullopt;
        }
        if (verdict == Link::Exchange::Verdict::Yield)
            return kSlotTaken;
    }
    return std::nullopt;
}

std::string Program::status() {
    double const seconds = static_cast<double>(OSWrap::Clock::nowNanoseconds() - began_) / 1e9;
    return Link::documentOf(
        {own_.slot, own_.machine, state_, interface_, seconds, exchange_.status()});
}

Link::Health Program::health() {
    Link::Health health;
    health.state = state_;
    for (Link::PeerStatus const& peer : exchange_.status()) {
        ++health.inSight;
        health.linked += peer.linked() ? 1 : 0;
    }
    return health;
}

}  // namespace

int main(int argc, char** argv) {
    Link::LinkOptions options;
    if (std::optional<int> const over = Link::readOptions(argc, argv, options))
        return *over;
    Transport::Setup::failOnSilence(true);  // nobody's silence is to end a link
    Transport::Receiver::idleLookInterval(kNoIdleLooks);
    auto const identity = Transport::Identity::instance().snapshot();
    if (!identity)
        return kUsage;
    return options.status ? Link::showStatus(*options.status, identity->directory)
                          : Program(std::move(options), *identity).run();
}
