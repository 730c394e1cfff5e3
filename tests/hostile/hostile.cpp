// Lets broken and hostile processes attack good ones, and checks that these do not notice.
//
//   hostile [--seconds N] [--seed N] [--only ATTACK[,ATTACK]...] [--limit MILLISECONDS]
//
// Each attack by itself for half of the time, then all of them side by side for the other half.
// Good processes call each other, make things and observe them all the while, and newcomers come
// and go. Two more in a folder of their own, whom nobody attacks, show how long this machine keeps
// anybody waiting at present: what a call of theirs took is no fault of an attack.
#include <algorithm>
#include <memory>
#include <random>

#include "RendezvousFolder.h"
#include "Resources.h"
#include "Slowness.h"
#include "Trial.h"

namespace hostile {
namespace {

using std::chrono::milliseconds;
using testsupport::ChildProgram;
using testsupport::kSlow;

/** Microseconds that nine of ten calls of a process take at most. */
constexpr long long kUsualAnswer = kSlow ? 500'000 : 100'000;
/** So many threads want a processor where calls are attacked for one where they are not: other
 * callers, objects made and told, newcomers, attackers. */
constexpr long long kCompany = 8;
/** Lines of one process's log: some for each kind of line, then one a second. */
constexpr std::size_t kMostLines = 500;
constexpr std::size_t kMostLinesPerSecond = 50;
constexpr std::chrono::seconds kPatience(kSlow ? 60 : 20);
/** Kilobytes that a process may keep for later of what waited in it at the worst moment. */
constexpr long kMemory = 24 * 1024;
/** Has the allocator give large blocks back when they are freed. Else it keeps some megabytes for
 * each thread once there were large ones, and nobody could tell these from a leak. */
constexpr char kGiveBack[] = "glibc.malloc.mmap_threshold=131072";
/** Of the first ones in whom something is found, stacks are kept. */
constexpr std::size_t kMostStacks = 2;
/** Descriptors that the narrow one may have. */
constexpr char kNarrow[] = "48";

struct Options {
    unsigned int seconds = 30;
    unsigned int seed = std::random_device()() % 1'000'000;
    std::string only;
    /** Milliseconds that a call may take, on top of what those that nobody attacks take. */
    unsigned int limit = kSlow ? 500 : 100;
};

/** A good process, and what it has told. */
class Good {
public:
    Good(std::string const& name, std::vector<std::string> const& arguments,
         ChildProgram::Environment environment = {}, std::vector<std::string> command = {})
        : name_(name) {
        environment["TRANSPORT_ACTOR"] = name;
        environment["GLIBC_TUNABLES"] = kGiveBack;
        for (std::string const& word : testsupport::programCommand("hostile_good"))
            command.push_back(word);
        std::vector<std::string> all{name};
        all.insert(all.end(), arguments.begin(), arguments.end());
        child_ = std::make_unique<ChildProgram>(command, all, environment);
    }

    std::string const& name() const { return name_; }
    std::string const& id() const { return id_; }
    ChildProgram& child() { return *child_; }
    bool awaitStart() {
        auto const line = child_->waitForLine("start ", kPatience);
        id_ = line ? line->substr(line->find(' ') + 1) : "";
        return line && child_->waitForLine("ready", kPatience);
    }
    bool tell(std::string const& order, std::string const& answer) {
        child_->writeLine(order);
        return child_->waitForLine(answer, kPatience).has_value();
    }
    /** By name; empty when it does not answer. */
    std::map<std::string, long> report() {
        child_->writeLine("report");
        std::map<std::string, long> values;
        auto const line = child_->waitForLine("report ", kPatience);
        std::istringstream words(line.value_or(""));
        for (std::string word; words >> word;)
            if (std::size_t const equals = word.find('='); equals != std::string::npos)
                values[word.substr(0, equals)] = std::atol(word.c_str() + equals + 1);
        return values;
    }

private:
    std::string const name_;
    std::string id_;
    std::unique_ptr<ChildProgram> child_;
};

/** How long calls took, in microseconds. */
struct Times {
    long long worst = 0;
    std::string slowest;  // whose call took longest
    long long usual = 0;  // not exceeded by nine of ten of a process
};

/** What was seen while some attacks went on. */
struct Stretch {
    std::string name;
    unsigned long rounds = 0;
    Times good;
    Times quiet;            // of those whom nobody attacks
    std::size_t lines = 0;  // of the log of the one that wrote most
    unsigned int newcomers = 0;
};

/** One thread, which the processes do not outlive. */
class Supervisor {
public:
    Supervisor(Options const& options, std::string const& folder, std::string const& quietFolder)
        : options_(options), folder_(folder), quietFolder_(quietFolder), random_(options.seed) {}

    /** False when something was found, which has been printed. */
    bool run() {
        chooseAttacks();
        start();
        std::printf("%-10s %8s %8s %8s %8s %8s %7s %6s\n", "attack", "rounds", "worst ms",
                    "quiet ms", "usual ms", "quiet ms", "lines", "come");
        unsigned int const half = options_.seconds * 1000 / (attacks_.size() > 1 ? 2 : 1);
        for (std::string const& attack : attacks_)
            if (faults_.empty())
                stretch({attack}, half / static_cast<unsigned int>(attacks_.size()), attack);
        if (attacks_.size() > 1 && faults_.empty())
            stretch(attacks_, half, "all");
        if (faults_.empty())
            finish();
        else
            checkDepartures();
        for (std::string const& fault : faults_)
            std::printf("FOUND %s\n", fault.c_str());
        if (!faults_.empty())
            keepLogs();
        return faults_.empty();
    }

private:
    void fault(std::string const& text) {
        if (faults_.size() < 20)
            faults_.push_back(text);
    }

    // ---- Start

    void chooseAttacks() {
        ChildProgram list("hostile_attacker");
        if (list.exitCode() != 0)
            return fault("the attackers do not start");
        std::string const wanted = "," + options_.only + ",";
        for (std::string const& line : list.lines()) {
            std::string const name = line.substr(0, line.find(' '));
            if (options_.only.empty() || wanted.find("," + name + ",") != std::string::npos)
                attacks_.push_back(name);
        }
        if (attacks_.empty())
            fault("there is no attack of this name");
    }
    void start() {
        if (!faults_.empty())
            return;
        ChildProgram::Environment const quiet{{"TRANSPORT_DIR", quietFolder_}};
        using Words = std::vector<std::string>;
        quiet_.push_back(std::make_unique<Good>("quiet-home", Words{}, quiet));
        quiet_.push_back(std::make_unique<Good>("quiet-caller", Words{"quiet-home"}, quiet));
        good_.push_back(std::make_unique<Good>("good-home", Words{"make"}));
        good_.push_back(std::make_unique<Good>("good-caller", Words{"good-home"}));
        good_.push_back(std::make_unique<Good>("good-witness", Words{"good-caller", "good-home"}));
        Words const narrow{"sh", "-c", std::string("ulimit -n ") + kNarrow + "; exec \"$@\"", "sh"};
        good_.push_back(std::make_unique<Good>("good-narrow", Words{"good-home"},
                                               ChildProgram::Environment{}, narrow));
        for (auto const* side : {&quiet_, &good_})
            for (auto const& each : *side)
                if (!each->awaitStart())
                    return lose(*each, "does not start");
        for (auto const* side : {&quiet_, &good_})
            for (auto const& each : *side)
                each->child().writeLine("go");
        warmUp();
    }
    void warmUp() {
        for (int i = 0; i < 5 && faults_.empty(); ++i)
            welcomeNewcomer();
        std::this_thread::sleep_for(milliseconds(500));
        takeTimes(good_);
        takeTimes(quiet_);
        for (auto const& each : good_)
            before_.push_back(testsupport::Resources::of(each->child().pid()));
    }

    // ---- While they are attacked

    void stretch(std::vector<std::string> const& attacks, unsigned int duration,
                 std::string const& name) {
        // Alone it may take half a processor; all together take no more.
        std::string const share = std::to_string(2 * attacks.size());
        Stretch seen;
        seen.name = name;
        std::size_t const linesBefore = mostLines();
        auto const begin = std::chrono::steady_clock::now();
        std::vector<std::unique_ptr<ChildProgram>> attackers;
        for (std::string const& attack : attacks)
            attackers.push_back(std::make_unique<ChildProgram>(
                "hostile_attacker",
                std::vector<std::string>{attack, std::to_string(random_() % 1'000'000),
                                         std::to_string(duration), share}));
        while (faults_.empty() &&
               std::chrono::steady_clock::now() - begin < milliseconds(duration)) {
            welcomeNewcomer();
            ++seen.newcomers;
        }
        for (std::size_t i = 0; i < attackers.size(); ++i)
            seen.rounds += roundsOf(*attackers[i], attacks[i]);
        attackers.clear();
        seen.good = takeTimes(good_);
        seen.quiet = takeTimes(quiet_);
        seen.lines = mostLines() - linesBefore;
        judge(seen, duration);
    }
    /** An attacker that does nothing shows nothing: that is a fault, unless it cannot do otherwise.
     */
    unsigned long roundsOf(ChildProgram& attacker, std::string const& name) {
        auto const line = attacker.waitForLine("rounds ", kPatience);
        unsigned long const rounds = line ? std::strtoul(line->c_str() + 7, nullptr, 10) : 0;
        if (rounds != 0)
            return rounds;
        std::string why =
            line ? "" : "it ends with " + std::to_string(attacker.exitCode(milliseconds(200)));
        for (std::string const& each : attacker.lines())
            if (each.rfind("failed ", 0) == 0 || each.rfind("lacks ", 0) == 0)
                why = each;
        std::printf("%-10s made no round: %s\n", name.c_str(), why.c_str());
        if (why.rfind("lacks ", 0) == 0)
            return 0;
        testsupport::keepLog(attacker, folder_ + "/log." + name);
        fault(name + " made no round: " + why);
        return 0;
    }
    void judge(Stretch const& seen, unsigned int duration) {
        auto const inMilliseconds = [](long long time) { return static_cast<double>(time) / 1000; };
        std::printf("%-10s %8lu %8.1f %8.1f %8.2f %8.2f %7zu %6u\n", seen.name.c_str(), seen.rounds,
                    inMilliseconds(seen.good.worst), inMilliseconds(seen.quiet.worst),
                    inMilliseconds(seen.good.usual), inMilliseconds(seen.quiet.usual), seen.lines,
                    seen.newcomers);
        if (seen.good.worst > options_.limit * 1000LL + seen.quiet.worst)
            fault(seen.name + ": a call of " + seen.good.slowest + " took " +
                  std::to_string(seen.good.worst / 1000) + " ms");
        if (seen.good.usual > kUsualAnswer + kCompany * seen.quiet.usual)
            fault(seen.name + ": one call in ten took " + std::to_string(seen.good.usual / 1000) +
                  " ms");
        if (seen.lines > kMostLines + kMostLinesPerSecond * duration / 1000)
            fault(seen.name + ": " + std::to_string(seen.lines) + " lines in the log");
    }
    /** A good one that comes while others are attacked is met by all, and missed when it goes. */
    void welcomeNewcomer() {
        Good newcomer("good-newcomer", {"good-home"});
        if (!newcomer.awaitStart())
            return lose(newcomer, "does not start");
        newcomer.child().writeLine("go");
        if (!isToldToAll("met " + newcomer.id()))
            return lose(newcomer, "was not met by all");
        if (!newcomer.tell("rest", "resting"))
            return lose(newcomer, "does not rest");
        auto report = newcomer.report();
        sentByNewcomers_ += report["sent.good-home"];
        if (report["faults"] != 0)
            return lose(newcomer, "was wronged");
        newcomer.child().closeInput();
        if (int const code = newcomer.child().exitCode(kPatience); code != 0)
            return lose(newcomer, "ended with " + std::to_string(code));
        isToldToAll("lost " + newcomer.id());
    }
    bool isToldToAll(std::string const& news) {
        for (auto const& each : good_)
            if (!each->child().waitForLine(news, kPatience)) {
                lose(*each, "did not hear \"" + news + "\" of a newcomer");
                return false;
            }
        return true;
    }

    using Side = std::vector<std::unique_ptr<Good>>;

    Times takeTimes(Side const& side) {
        Times all;
        for (auto const& each : side) {
            auto const report = each->report();
            if (report.empty())
                lose(*each, "does not answer");
            if (report.count("faults") != 0)
                lose(*each, "was wronged");
            if (report.count("worst") == 0)
                continue;
            if (report.at("worst") > all.worst) {
                all.worst = report.at("worst");
                all.slowest = each->name();
            }
            all.usual = std::max<long long>(all.usual, report.at("usual"));
        }
        return all;
    }
    std::size_t mostLines() const {
        std::size_t most = 0;
        for (auto const& each : good_)
            most = std::max(most, each->child().errorLines().size());
        return most;
    }

    // ---- The end

    void finish() {
        for (auto const& each : good_)
            if (!each->tell("rest", "resting"))
                lose(*each, "does not rest");
        if (faults_.empty())
            balance();
        for (std::size_t i = 0; i < good_.size() && faults_.empty(); ++i)
            compareResources(*good_[i], before_[i]);
        checkDepartures();
        for (auto const* side : {&good_, &quiet_})
            for (auto const& each : *side) {
                each->child().closeInput();
                if (int const code = each->child().exitCode(kPatience); code != 0)
                    lose(*each, "ended with " + std::to_string(code));
            }
    }
    /** What was sent one way has come, and what was made was told. */
    void balance() {
        std::string unbalanced;
        bool const balanced = testsupport::eventually(
            [&] {
                unbalanced.clear();
                std::map<std::string, std::map<std::string, long>> all;
                for (auto const& each : good_)
                    all[each->name()] = each->report();
                auto const compare = [&](std::string const& what, long one, long other) {
                    if (one != other)
                        unbalanced += what + ": " + std::to_string(one) + " and " +
                                      std::to_string(other) + "; ";
                };
                for (auto& [name, values] : all) {
                    for (auto const& [key, value] : std::map<std::string, long>(values))
                        if (key.rfind("sent.", 0) == 0)
                            compare("one-way calls from " + name + " to " + key.substr(5), value,
                                    all[key.substr(5)]["got." + name]);
                    for (char const* told : {"comers", "goers"})
                        compare("things made, and " + std::string(told) + " told to " + name,
                                all["good-home"]["made"], values[told]);
                }
                compare("one-way calls from newcomers", sentByNewcomers_,
                        all["good-home"]["got.good-newcomer"]);
                return unbalanced.empty();
            },
            kPatience);
        if (!balanced)
            fault(unbalanced);
    }
    /** No good one was ever told to be gone. */
    void checkDepartures() {
        for (auto const& each : good_)
            for (std::string const& line : each->child().lines())
                for (auto const& other : good_)
                    if (line == "lost " + other->id())
                        fault(each->name() + " was told that " + other->name() + " had gone");
    }
    void compareResources(Good& good, testsupport::Resources const& before) {
        testsupport::Resources after{};
        bool const returned = testsupport::eventually(
            [&] {
                after = testsupport::Resources::of(good.child().pid());
                return after.descriptors <= before.descriptors + 8 &&
                       after.threads <= before.threads + 4 &&
                       (kSlow || after.kilobytes <= before.kilobytes + kMemory);
            },
            kPatience);
        std::printf("%-14s %ld kB, %ld descriptors, %ld threads; were %ld, %ld, %ld\n",
                    good.name().c_str(), after.kilobytes, after.descriptors, after.threads,
                    before.kilobytes, before.descriptors, before.threads);
        if (!returned)
            fault(good.name() + " does not give back what it has taken");
    }

    // ---- What was found

    void lose(Good& good, std::string const& what) {
        std::string text = good.name() + " " + what;
        if (good.child().waitForExit(milliseconds(200)))
            text += ", it ended with " + std::to_string(good.child().exitCode());
        else if (faults_.size() < kMostStacks)
            testsupport::keepStacks(good.child().pid(), folder_ + "/stacks." + good.name());
        for (std::string const& line : good.child().lines())
            if (line.rfind("fault ", 0) == 0)
                text += "; " + line;
        fault(text.substr(0, 1000));
        keepLog(good);
    }
    void keepLog(Good& good) {
        testsupport::keepLog(good.child(), folder_ + "/log." + good.name());
    }
    void keepLogs() {
        for (auto const& each : good_)
            keepLog(*each);
        std::printf("Logs and stacks are in %s\n", folder_.c_str());
    }

    Options const options_;
    std::string const folder_;  // for logs and stacks
    std::string const quietFolder_;
    std::mt19937 random_;
    std::vector<std::string> attacks_;
    Side good_;
    Side quiet_;
    std::vector<testsupport::Resources> before_;
    long sentByNewcomers_ = 0;
    std::vector<std::string> faults_;
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
