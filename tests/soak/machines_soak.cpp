// Three machines, as network namespaces, with couriers that send each other messages, and stations
// that call each other, while couriers, links and cables suffer blows at random; and what has
// become of each message, and of all that is to come back by itself.
//
//   machines_soak [--seconds N] [--seed N] [--stretch MILLISECONDS]
//
// The same seed strikes the same blows, at times that the machine keeps as well as it can.
#include <functional>
#include <optional>
#include <random>

#include "../system/Machines.h"
#include "Ledger.h"
#include "Resources.h"
#include "Slowness.h"
#include "Trial.h"

namespace soak {
namespace {

using machines::Machine;
using machines::Network;
using testsupport::ActorProgram;
using testsupport::kSlow;
using testsupport::Resources;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr int kMachines = 3;
constexpr int kCouriersOfEach = 2;
/** This machine's link is never killed: what grows shows in it. */
constexpr int kSpared = 1;
/** Within that all is to be back once the last blow has been undone. */
constexpr std::chrono::seconds kBackWithin(kSlow ? 60 : 20);
constexpr unsigned kWarmStretches = 4;
constexpr std::size_t kFaultsTold = 20;

struct Options {
    unsigned int seconds = 60;
    unsigned int seed = std::random_device()() % 1'000'000;
    unsigned int stretch = 4000;  // milliseconds
};

/** By itself the allocator keeps large blocks for each thread, which looks like a leak. */
ActorProgram::Environment const kLinkEnvironment{{"MALLOC_MMAP_THRESHOLD_", "32768"},
                                                 {"MALLOC_TRIM_THRESHOLD_", "131072"}};

/** What a link uses when all rest. Sanitizers use memory of their own. */
struct {
    char const* name;
    long mayGrow;  // after the first stretches
    long Resources::*used;
} const kResources[]{{"resident kB", kSlow ? 1L << 30 : 16 * 1024, &Resources::kilobytes},
                     {"descriptors", 12, &Resources::descriptors},
                     {"threads", 8, &Resources::threads}};

struct Place {
    CourierLife life;
    int machine;
    std::unique_ptr<ActorProgram> program;
    std::string id;
    std::optional<Journal> journal;
    std::uint64_t read = 0;  // of its journal
};

struct Site {
    explicit Site(int number) : machine(number) {
        machine.access += "\ngroups = 3, " + std::to_string(unsigned{kCourierGroup});
    }
    Machine machine;
    std::unique_ptr<StationActor> station;
    std::size_t logged = 0;  // lines of the link that have been looked at
    unsigned measured = 0;   // in the life of the link
    Resources used;          // at most, in its first stretches
};

/** What befalls something, so long after the stretch's beginning, and what ends it. */
struct Blow {
    Milliseconds at, until;
    std::string text;
    std::function<void()> strike, undo;
};

/** One thread, which all processes do not outlive. */
class MachinesSoak {
public:
    MachinesSoak(Options const& options, std::string const& folder)
        : options_(options), folder_(folder), random_(options.seed) {
        for (int number = 1; number <= kMachines; ++number)
            sites_.push_back(std::make_unique<Site>(number));
        for (int i = 0; i < kMachines * kCouriersOfEach; ++i) {
            places_.push_back(std::make_unique<Place>());
            places_.back()->life = static_cast<CourierLife>(i + 1) << 16;
            places_.back()->machine = 1 + i / kCouriersOfEach;
        }
    }

    /** False when something was found, which has been printed. */
    bool run() {
        if (!network_.made()) {
            std::printf("network namespaces need root, iproute2, and the right to enter them\n");
            return false;
        }
        auto const end = Clock::now() + std::chrono::seconds(options_.seconds);
        for (int number = 1; number <= kMachines; ++number)
            startMachine(number);
        calm();
        while (!failed() && Clock::now() < end) {
            ++stretches_;
            act(plan());
            calm();
        }
        printTally();
        if (failed())
            printFaults();
        return !failed();
    }

private:
    bool failed() const { return !faults_.empty() || testing::UnitTest::GetInstance()->Failed(); }
    unsigned dice(unsigned sides) { return static_cast<unsigned>(random_()) % sides; }
    Milliseconds time(unsigned least, unsigned most) {
        return Milliseconds(least + dice(most - least));
    }
    Site& site(int number) { return *sites_[static_cast<std::size_t>(number) - 1]; }

    // ---- Processes

    void startMachine(int number) {
        site(number).machine.startLink(kLinkEnvironment);
        site(number).measured = 0;
        startStation(number);
        for (auto& place : places_)
            if (place->machine == number)
                start(*place);
    }
    void startStation(int number) {
        site(number).station = site(number).machine.station();
        site(number).station->publishStation(stationOf(number), "2");
    }
    static std::string stationOf(int number) { return "station" + std::to_string(number); }
    void start(Place& place) {
        std::string const journal = folder_ + "/journal." + std::to_string(++place.life);
        place.journal.emplace(journal);
        place.read = 0;
        place.program = site(place.machine).machine.actor("courier");
        place.id = place.program->ask("begin " + std::to_string(place.life) + " " + journal, "id");
        ledger_.born(place.life, static_cast<std::uint32_t>(std::stoul(place.id, nullptr, 16)),
                     place.machine);
        if (acting_)
            setGoing(place);
    }
    /** What it has noted is read at once, since its place is filled again. */
    void kill(Place& place) {
        place.program->child().kill();
        place.program->child().waitForExit();
        keepLog(place);
        place.program.reset();
        readJournal(place);
        ledger_.died(place.life);
    }
    void setGoing(Place& place) {
        std::string ids;
        for (auto const& other : places_)
            if (other->program && other.get() != &place)
                ids += (ids.empty() ? "" : ",") + other->id;
        place.program->tell("go " + ids + " " + std::to_string(dice(1'000'000)));
    }
    void killLink(int number) { endLink(number, SIGKILL, -SIGKILL); }
    void endLink(int number, int signal, int exitCode) {
        partFromAll(number);
        site(number).machine.link->signal(signal);
        int const code = site(number).machine.link->exitCode();
        keepLog(number);
        if (code != exitCode)
            faults_.push_back("link " + std::to_string(number) + " ends with " +
                              std::to_string(code));
    }
    void startLink(int number) {
        site(number).logged = 0;
        site(number).measured = 0;
        site(number).machine.startLink(kLinkEnvironment);
    }
    void partFromAll(int number) {
        for (int other = 1; other <= kMachines; ++other)
            ledger_.parted(number, other);
    }

    // ---- Blows

    /** One to three at once, each upon something else; now and then none. */
    std::vector<Blow> plan() {
        std::vector<Blow> blows;
        std::vector<std::string> struck;
        for (unsigned left = dice(4); left > 0; --left) {
            std::string subject;
            Blow blow = anyBlow(subject);
            if (std::find(struck.begin(), struck.end(), subject) != struck.end())
                continue;
            struck.push_back(subject);
            blows.push_back(std::move(blow));
        }
        if (dice(12) == 0)
            blows = {killMachine(2 + static_cast<int>(dice(kMachines - 1)))};
        return blows;
    }
    Blow anyBlow(std::string& subject) {
        int const number = 1 + static_cast<int>(dice(kMachines));
        Place& place = *places_[dice(static_cast<unsigned>(places_.size()))];
        unsigned const kind = dice(8);
        subject = kind < 2   ? "courier " + std::to_string(place.life >> 16)
                  : kind < 5 ? "link " + std::to_string(number)
                             : "cable " + std::to_string(number);
        switch (kind) {
            case 0:
                return killCourier(place);
            case 1:
                return stopCourier(place);
            case 2:
                return number == kSpared ? stopLink(number) : killLinkOf(number);
            case 3:
                return number == kSpared ? stopLink(number) : endLinkOf(number);
            case 4:
                return stopLink(number);
            case 5:
                return unplug(number);
            case 6:
                return mute(number);
            default:
                subject = "pair";
                return keepApart(number);
        }
    }
    Blow blow(unsigned least, unsigned most, std::string const& text, std::function<void()> strike,
              std::function<void()> undo) {
        Milliseconds const at = time(0, options_.stretch / 2);
        return {at, at + time(least, most), text, std::move(strike), std::move(undo)};
    }
    Blow killCourier(Place& place) {
        return blow(
            1, 1500, "kill courier " + std::to_string(place.life >> 16), [&] { kill(place); },
            [&] { start(place); });
    }
    Blow stopCourier(Place& place) {
        return blow(
            50, 2500, "stop courier " + std::to_string(place.life >> 16),
            [&] { place.program->child().signal(SIGSTOP); },
            [&] { place.program->child().signal(SIGCONT); });
    }
    Blow killLinkOf(int number) {
        return blow(
            1, 1500, "kill link " + std::to_string(number), [this, number] { killLink(number); },
            [this, number] { startLink(number); });
    }
    Blow endLinkOf(int number) {
        return blow(
            1, 1500, "end link " + std::to_string(number),
            [this, number] { endLink(number, SIGTERM, 0); }, [this, number] { startLink(number); });
    }
    Blow stopLink(int number) {
        return blow(
            50, 4000, "stop link " + std::to_string(number),
            [this, number] { site(number).machine.link->signal(SIGSTOP); },
            [this, number] { site(number).machine.link->signal(SIGCONT); });
    }
    Blow unplug(int number) {
        return blow(
            20, 4000, "unplug machine " + std::to_string(number),
            [this, number] { network_.unplug(number); },
            [this, number] { network_.plugIn(number); });
    }
    Blow mute(int number) {
        return blow(
            20, 4000, "mute machine " + std::to_string(number),
            [this, number] {
                if (!Network::mute(number) && !std::exchange(saysMute_, true))
                    std::printf(
                        "this kernel has no queue that drops everything, or tc is missing\n");
            },
            [number] { Network::unmute(number); });
    }
    Blow keepApart(int number) {
        int const other = 1 + number % kMachines;
        auto const set = [this, number, other](bool apart) {
            network_.keepApart(number, apart);
            network_.keepApart(other, apart);
        };
        return blow(
            20, 4000,
            "keep machines " + std::to_string(number) + " and " + std::to_string(other) + " apart",
            [set] { set(true); }, [set] { set(false); });
    }
    Blow killMachine(int number) {
        return blow(
            1, 2000, "kill machine " + std::to_string(number),
            [this, number] {
                killLink(number);
                site(number).station.reset();
                for (auto& place : places_)
                    if (place->machine == number)
                        kill(*place);
            },
            [this, number] {
                site(number).logged = 0;
                startMachine(number);
            });
    }

    // ---- A stretch of action

    void act(std::vector<Blow> blows) {
        struct Stroke {
            Milliseconds at;
            std::string text;
            std::function<void()> const* act;
        };
        std::vector<Stroke> strokes;
        for (Blow const& one : blows) {
            strokes.push_back({one.at, one.text, &one.strike});
            strokes.push_back({one.until, "no more: " + one.text, &one.undo});
        }
        std::stable_sort(strokes.begin(), strokes.end(),
                         [](Stroke const& a, Stroke const& b) { return a.at < b.at; });
        note("stretch " + std::to_string(stretches_));
        acting_ = true;
        for (auto& place : places_)
            setGoing(*place);
        auto const begin = Clock::now();
        for (Stroke const& stroke : strokes) {
            std::this_thread::sleep_until(begin + stroke.at);
            note(stroke.text);
            (*stroke.act)();
        }
        std::this_thread::sleep_until(begin + Milliseconds(options_.stretch));
        acting_ = false;
        blows_ += blows.size();
    }

    // ---- Rest and judgement

    /** All comes back by itself; then what has happened is judged. */
    void calm() {
        auto const begin = Clock::now();
        note("calm");
        for (auto& place : places_)
            if (stretches_ > 0 && !place->program->does("rest"))
                faults_.push_back("a courier does not come to rest");
        expectSoon("all couriers know the same, and those that live",
                   [this] { return allAgree(); });
        expectSoon("all couriers reach each other", [this] { return allReach(); });
        expectSoon("all stations call each other", [this] { return allCall(); });
        expectSoon("each message has come or come back", [this] {
            for (auto& place : places_)
                readJournal(*place);
            return ledger_.unsettled() == 0;
        });
        longestCalm_ = std::max(
            longestCalm_, std::chrono::duration_cast<Milliseconds>(Clock::now() - begin).count());
        readLogs();
        for (std::string const& fault : ledger_.judge())
            faults_.push_back(fault);
        for (int number = 1; number <= kMachines; ++number)
            measure(number);
        for (auto& place : places_) {
            if (failed())
                return;  // the journals stay
            if (place->journal->isFull())
                faults_.push_back("a journal is full");
            place->program->does("clear");
            place->read = 0;
        }
    }
    template <class Condition>
    void expectSoon(char const* what, Condition const& condition) {
        if (failed() || testsupport::eventually(condition, kBackWithin))
            return;
        faults_.push_back(std::string("not in time: ") + what);
        for (int number = 1; number <= kMachines; ++number)
            testsupport::keepStacks(site(number).machine.link->pid(),
                                    folder_ + "/stacks.link" + std::to_string(number));
    }
    bool allAgree() {
        std::string const view = " " + places_.front()->program->ask("view", "view") + " ";
        if (static_cast<std::size_t>(std::count(view.begin(), view.end(), ' ')) !=
            places_.size() + 1)
            return false;
        return std::all_of(places_.begin(), places_.end(), [&](auto& place) {
            return view.find(" " + withoutZeros(place->id) + " ") != view.npos &&
                   " " + place->program->ask("view", "view") + " " == view;
        });
    }
    static std::string withoutZeros(std::string const& id) {
        return id.substr(id.find_first_not_of('0'));
    }
    bool allReach() {
        for (auto& place : places_)
            for (auto& other : places_)
                if (place != other && !place->program->does("reaches " + other->id))
                    return false;
        return true;
    }
    bool allCall() {
        for (int number = 1; number <= kMachines; ++number)
            for (int other = 1; other <= kMachines; ++other)
                if (number != other && !calls(*site(number).station, stationOf(other)))
                    return false;
        return true;
    }
    static bool calls(StationActor& client, std::string const& station) {
        return client.does("keep " + station + " 2") && client.ask("use " + station, "used") == "1";
    }
    /** Up to what one that lives is about to note. */
    void readJournal(Place& place) {
        Journal const& journal = *place.journal;
        std::uint64_t const end = journal.count();
        for (; place.read < end && (!place.program || journal.isThere(place.read)); ++place.read)
            ledger_.take(place.life, journal[place.read]);
    }
    /** Machines whose links have told that they had none to each other. */
    void readLogs() {
        for (int number = 1; number <= kMachines; ++number) {
            auto const lines = site(number).machine.link->errorLines();
            for (; site(number).logged < lines.size(); ++site(number).logged) {
                std::string const& line = lines[site(number).logged];
                for (int other = 1; other <= kMachines; ++other)
                    if (line.find("no link with slot " + std::to_string(other)) != line.npos) {
                        ledger_.parted(number, other);
                        ++partings_;
                    }
            }
        }
    }
    void measure(int number) {
        Site& at = site(number);
        if (at.machine.link->waitForExit(Milliseconds(0))) {
            faults_.push_back("link " + std::to_string(number) + " has ended by itself");
            return;
        }
        Resources const now = Resources::of(at.machine.link->pid());
        bool const warm = ++at.measured > kWarmStretches;
        for (auto const& [name, mayGrow, used] : kResources) {
            if (!warm)
                at.used.*used = std::max(at.used.*used, now.*used);
            else if (now.*used > at.used.*used + mayGrow)
                faults_.push_back("link " + std::to_string(number) + ": " + name + " grew from " +
                                  std::to_string(at.used.*used) + " to " +
                                  std::to_string(now.*used));
        }
        note("link " + std::to_string(number) + " uses " + std::to_string(now.kilobytes) + " kB, " +
             std::to_string(now.descriptors) + " descriptors, " + std::to_string(now.threads) +
             " threads");
    }

    // ---- What was found

    void note(std::string const& text) {
        std::ofstream(folder_ + "/course", std::ios::app)
            << std::fixed << secondsNow() << " " << text << "\n";
    }
    void keepLog(Place const& place) {
        testsupport::keepLog(place.program->child(),
                             folder_ + "/log.courier" + std::to_string(place.life));
    }
    void keepLog(int number) {
        testsupport::keepLog(
            *site(number).machine.link,
            folder_ + "/log.link" + std::to_string(number) + "." + std::to_string(stretches_));
    }
    void printTally() {
        Ledger::Tally const& tally = ledger_.tally();
        std::printf(
            "%u stretches, %zu blows, %zu partings; longest calm %lld ms; messages: %lu "
            "accepted, %lu refused, %lu delivered, %lu returned, %lu both, %lu ended with a "
            "courier that was killed\n",
            stretches_, blows_, partings_, static_cast<long long>(longestCalm_), tally.taken,
            tally.refused, tally.came, tally.back, tally.both, tally.withCouriers);
        if (tally.came == 0 || (blows_ > 10 && tally.back == 0))
            faults_.push_back("nothing was there to be judged");
    }
    void printFaults() {
        for (int number = 1; number <= kMachines; ++number)
            if (site(number).machine.link)
                keepLog(number);
        for (auto const& place : places_)
            if (place->program)
                keepLog(*place);
        std::printf("FOUND %zu faults with seed %u, in stretch %u\n", faults_.size(), options_.seed,
                    stretches_);
        for (std::size_t i = 0; i < std::min(faults_.size(), kFaultsTold); ++i)
            std::printf("   %s\n", faults_[i].c_str());
        std::printf("The course of it, logs and journals are in %s\n", folder_.c_str());
    }

    Options const options_;
    std::string const folder_;
    std::mt19937 random_;
    Network network_{kMachines};
    std::vector<std::unique_ptr<Site>> sites_;
    std::vector<std::unique_ptr<Place>> places_;
    Ledger ledger_;
    std::vector<std::string> faults_;
    bool acting_ = false;
    bool saysMute_ = false;
    unsigned stretches_ = 0;
    std::size_t blows_ = 0, partings_ = 0;
    Milliseconds::rep longestCalm_ = 0;
};

}  // namespace
}  // namespace soak

int main(int count, char** arguments) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    soak::Options options;
    if (!testsupport::readOptions(count, arguments,
                                  {{"--seconds", &options.seconds},
                                   {"--seed", &options.seed},
                                   {"--stretch", &options.stretch}}) ||
        options.stretch < 10) {
        std::fprintf(stderr,
                     "usage: machines_soak [--seconds N] [--seed N] [--stretch MILLISECONDS]\n");
        return 2;
    }
    std::printf("machines_soak: seed %u, %u s\n", options.seed, options.seconds);
    return testsupport::runTrial("machines_soak", options.seed, [&](std::string const& folder) {
        return soak::MachinesSoak(options, folder).run();
    });
}
