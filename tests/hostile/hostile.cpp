// Lets broken and hostile processes attack good ones, and checks that these do not notice.
//
//   hostile [--seconds N] [--seed N] [--only ATTACK[,ATTACK]...] [--limit MILLISECONDS]
//
// Each attack by itself for half of the time, then all of them side by side for the other half.
// Good processes, those of the soak, act all the while, and newcomers come and go. Two more in a
// folder of their own, whom nobody attacks, show how long this machine keeps anybody waiting at
// present: what a call of theirs took is no fault of an attack.
#include <random>

#include "RendezvousFolder.h"
#include "tests/soak/Crew.h"

namespace hostile {
namespace {

using soak::Slot;
using std::chrono::milliseconds;
using testsupport::ChildProgram;
using testsupport::kSlow;
using testsupport::Resources;

/** Beside the newcomer's. */
constexpr unsigned int kGoodOnes = 4;
constexpr unsigned int kQuietOnes = 2;
/** Microseconds that nine of ten calls of a process take at most. */
constexpr long long kUsualAnswer = kSlow ? 500'000 : 100'000;
/** So many threads want a processor where calls are attacked for one where they are not: other
 * callers, objects made and told, newcomers, attackers. */
constexpr long long kCompany = 8;
/** Lines of one process's log: some for each kind of line, then one a second. */
constexpr std::size_t kMostLines = 500;
constexpr std::size_t kMostLinesPerSecond = 50;
/** Kilobytes that a process may keep for later of what waited in it at the worst moment. */
constexpr long kMemory = 24 * 1024;
/** Has the allocator give large blocks back when they are freed. Else it keeps some megabytes for
 * each thread once there were large ones, and nobody could tell these from a leak. */
constexpr char kGiveBack[] = "glibc.malloc.mmap_threshold=131072";
/** Descriptors that one of the good ones may have. */
constexpr char kNarrow[] = "48";

struct Options {
    unsigned int seconds = 30;
    unsigned int seed = std::random_device()() % 1'000'000;
    std::string only;
    /** Milliseconds that a call may take, on top of what those that nobody attacks take. */
    unsigned int limit = kSlow ? 500 : 100;
};

/** How long calls took, in microseconds. */
struct Times {
    long long worst = 0;
    long long usual = 0;  // not exceeded by nine of ten of a process

    /** Of all since this was asked last. */
    static Times of(soak::Crew& crew) {
        Times all;
        for (Slot& slot : crew.slots()) {
            std::vector<long long>& took = slot.echoes;
            std::sort(took.begin(), took.end());
            if (!took.empty()) {
                all.worst = std::max(all.worst, took.back());
                all.usual = std::max(all.usual, took[(took.size() - 1) * 9 / 10]);
            }
            took.clear();
        }
        return all;
    }
};

/** One thread, which the processes do not outlive. */
class Supervisor {
public:
    Supervisor(Options const& options, std::string const& folder, std::string const& quietFolder)
        : options_(options),
          random_(options.seed),
          good_(folder, {options.seed, kGoodOnes, 0, true}, kGoodOnes + 1),
          quiet_(folder + "/quiet", {options.seed, kQuietOnes}, kQuietOnes) {
        std::filesystem::create_directory(folder + "/quiet");
        for (Slot& slot : good_.slots())
            slot.environment = {{"TRANSPORT_ACTOR", "good-" + std::to_string(slot.life.actor)},
                                {"GLIBC_TUNABLES", kGiveBack}};
        for (Slot& slot : quiet_.slots())
            slot.environment["TRANSPORT_DIR"] = quietFolder;
        Slot& narrow = good_.slots()[1];
        std::string const limited = std::string("ulimit -n ") + kNarrow + "; exec \"$@\"";
        narrow.command.insert(narrow.command.begin(), {"sh", "-c", limited, "sh"});
        narrow.isTimed = false;  // who calls it may have to wait for a descriptor
    }

    /** False when something was found, which has been printed. */
    bool run() {
        chooseAttacks();
        start();
        std::printf("%-10s %8s %8s %8s %8s %8s %7s %6s\n", "attack", "rounds", "worst ms",
                    "quiet ms", "usual ms", "quiet ms", "lines", "come");
        unsigned int const half = options_.seconds * 1000 / (attacks_.size() > 1 ? 2 : 1);
        for (std::string const& attack : attacks_)
            stretch({attack}, half / static_cast<unsigned int>(attacks_.size()), attack);
        if (attacks_.size() > 1)
            stretch(attacks_, half, "all");
        finish();
        for (soak::Crew* const crew : {&good_, &quiet_})
            if (crew->failed())
                crew->printFaults();
        return !failed();
    }

private:
    bool failed() const { return good_.failed() || quiet_.failed(); }
    void fault(std::string const& what, std::string const& text) {
        good_.checker().report(what, text);
    }

    // ---- Start

    void chooseAttacks() {
        ChildProgram list("hostile_attacker");
        if (list.exitCode() != 0)
            return fault("the attackers start", "they do not");
        std::string const wanted = "," + options_.only + ",";
        for (std::string const& line : list.lines()) {
            std::string const name = line.substr(0, line.find(' '));
            if (options_.only.empty() || wanted.find("," + name + ",") != std::string::npos)
                attacks_.push_back(name);
        }
        if (attacks_.empty())
            fault("there is an attack of this name", options_.only);
    }
    void start() {
        for (Slot& slot : quiet_.slots())
            quiet_.start(slot);
        for (Slot& slot : good_.slots())
            if (slot.life.actor < kGoodOnes)
                good_.start(slot);
        quiet_.awaitStarts();
        good_.awaitStarts();
        quiet_.go();
        good_.go();
        for (int i = 0; i < 5; ++i)
            welcomeNewcomer();
        settle();
        for (Slot& slot : good_.slots())
            if (slot.child)
                slot.used = Resources::of(slot.child->pid());
    }
    /** All rest, and are judged; then they go on. All have met the last newcomer. */
    std::pair<Times, Times> settle() {
        for (soak::Crew* const crew : {&good_, &quiet_}) {
            crew->settle(soak::Crew::Meeting::over);
            crew->go();
        }
        return {Times::of(good_), Times::of(quiet_)};
    }

    // ---- While they are attacked

    void stretch(std::vector<std::string> const& attacks, unsigned int duration,
                 std::string const& name) {
        if (failed())
            return;
        // Alone it may take half a processor; all together take no more.
        std::string const share = std::to_string(2 * attacks.size());
        std::size_t const linesBefore = mostLines();
        auto const begin = std::chrono::steady_clock::now();
        std::vector<std::unique_ptr<ChildProgram>> attackers;
        for (std::string const& attack : attacks)
            attackers.push_back(std::make_unique<ChildProgram>(
                "hostile_attacker",
                std::vector<std::string>{attack, std::to_string(random_() % 1'000'000),
                                         std::to_string(duration), share}));
        unsigned int newcomers = 0;
        while (!failed() && std::chrono::steady_clock::now() - begin < milliseconds(duration)) {
            welcomeNewcomer();
            ++newcomers;
        }
        unsigned long rounds = 0;
        for (std::size_t i = 0; i < attackers.size(); ++i)
            rounds += roundsOf(*attackers[i], attacks[i]);
        attackers.clear();
        auto const [good, quiet] = settle();
        std::size_t const lines = mostLines() - linesBefore;
        auto const inMilliseconds = [](long long time) { return static_cast<double>(time) / 1000; };
        std::printf("%-10s %8lu %8.1f %8.1f %8.2f %8.2f %7zu %6u\n", name.c_str(), rounds,
                    inMilliseconds(good.worst), inMilliseconds(quiet.worst),
                    inMilliseconds(good.usual), inMilliseconds(quiet.usual), lines, newcomers);
        if (good.worst > options_.limit * 1000LL + quiet.worst)
            fault("calls are answered in time",
                  name + ": a call took " + soak::milliseconds(good.worst));
        if (good.usual > kUsualAnswer + kCompany * quiet.usual)
            fault("calls are answered in time",
                  name + ": one call in ten took " + soak::milliseconds(good.usual));
        if (lines > kMostLines + kMostLinesPerSecond * duration / 1000)
            fault("few lines are logged", name + ": " + std::to_string(lines) + " lines");
    }
    /** An attacker that does not end is killed, which is no fault of the good ones. */
    unsigned long roundsOf(ChildProgram& attacker, std::string const& name) {
        auto const line = attacker.waitForLine("rounds ", soak::kPatience);
        unsigned long const rounds = line ? std::strtoul(line->c_str() + 7, nullptr, 10) : 0;
        if (rounds != 0)
            return rounds;
        std::string why = line ? "" : "it does not end";
        for (std::string const& each : attacker.lines())
            if (each.rfind("failed ", 0) == 0)
                why = each;
        std::printf("%-10s made no round: %s\n", name.c_str(), why.c_str());
        return 0;
    }
    /** A good one that comes while others are attacked is met by all, and missed when it goes. */
    void welcomeNewcomer() {
        if (failed())
            return;
        Slot& newcomer = good_.slots()[kGoodOnes];
        good_.start(newcomer);
        good_.awaitStarts();
        if (failed())
            return;
        std::string const termination = good_.terminationOf(newcomer);
        newcomer.child->writeLine("go 0");
        if (!good_.awaitNews("met", termination))
            return;
        good_.leave(newcomer);
        if (!failed())
            good_.awaitNews("lost", termination);
    }
    std::size_t mostLines() {
        std::size_t most = 0;
        for (Slot const& slot : good_.slots())
            if (slot.child)
                most = std::max(most, slot.child->errorLines().size());
        return most;
    }

    // ---- The end

    void finish() {
        if (failed())
            return;
        good_.settle();
        for (Slot& slot : good_.slots())
            if (slot.child && !failed())
                compareResources(slot);
        for (soak::Crew* const crew : {&good_, &quiet_}) {
            crew->settle();
            if (!failed())
                crew->finish();
        }
    }
    void compareResources(Slot const& slot) {
        Resources const& before = slot.used;
        Resources after{};
        bool const returned = soak::eventually([&] {
            after = Resources::of(slot.child->pid());
            return after.descriptors <= before.descriptors + 8 &&
                   after.threads <= before.threads + 4 &&
                   (kSlow || after.kilobytes <= before.kilobytes + kMemory);
        });
        std::printf("%-14s %ld kB, %ld descriptors, %ld threads; were %ld, %ld, %ld\n",
                    slot.name().c_str(), after.kilobytes, after.descriptors, after.threads,
                    before.kilobytes, before.descriptors, before.threads);
        if (!returned)
            fault("what was taken is given back", slot.name() + " does not");
    }

    Options const options_;
    std::mt19937 random_;
    std::vector<std::string> attacks_;
    soak::Crew good_;  // the last one is the newcomer
    soak::Crew quiet_;
};

}  // namespace
}  // namespace hostile

int main(int count, char** arguments) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    hostile::Options options;
    if (!testsupport::readOptions(count, arguments,
                                  {{"--seconds", &options.seconds},
                                   {"--seed", &options.seed},
                                   {"--only", &options.only},
                                   {"--limit", &options.limit}}) ||
        options.seconds == 0) {
        std::fprintf(stderr,
                     "usage: hostile [--seconds N] [--seed N] [--only ATTACK[,ATTACK]...] "
                     "[--limit MILLISECONDS]\n");
        return 2;
    }
    std::printf("hostile: seed %u, %u s\n", options.seed, options.seconds);
    testsupport::RendezvousFolder const quiet;
    testsupport::RendezvousFolder const attacked;
    return testsupport::runTrial("hostile", options.seed, [&](std::string const& folder) {
        return hostile::Supervisor(options, folder, quiet.path()).run();
    });
}
