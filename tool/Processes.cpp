#include "Processes.h"

#include <fmt/format.h>
#include <transport.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "Failure.h"
#include "Wildcard.h"

char const kHowToEnable[] =
    "a process tells more with REFLECTORB_PROCESS_OBJECT=1 in its environment, or a "
    "TreflectProcessObject";

namespace {

double secondsSinceStart() {
    double seconds = 0;
    std::ifstream("/proc/uptime") >> seconds;
    return seconds;
}

/** Takes in what the system says of a process; see proc(5). */
void askSystem(Process& process) {
    std::ifstream file("/proc/" + std::to_string(process.pid) + "/stat");
    std::string text;
    std::getline(file, text);
    std::size_t const end = text.rfind(')');  // behind the program's name
    if (end == std::string::npos)
        return;
    std::istringstream fields(text.substr(end + 1));
    char state = '?';
    constexpr int kAheadOfThreads = 16;
    constexpr int kAheadOfStart = 1;
    constexpr int kAheadOfMemory = 1;
    std::string other;
    double startTicks = 0;
    std::int64_t pages = 0;
    fields >> state;
    for (int i = 0; i < kAheadOfThreads; ++i)
        fields >> other;
    fields >> process.threads;
    for (int i = 0; i < kAheadOfStart; ++i)
        fields >> other;
    fields >> startTicks;
    for (int i = 0; i < kAheadOfMemory; ++i)
        fields >> other;
    fields >> pages;
    process.isStopped = state == 'T' || state == 't';
    process.memory = pages * sysconf(_SC_PAGESIZE);
    process.uptime = secondsSinceStart() - startTicks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void tellNamesakesApart(Processes& processes) {
    std::map<std::string, int> count;
    for (Process const& process : processes)
        ++count[process.name()];
    for (Process& process : processes)
        process.hasNamesake = process.pid == 0 && count[process.name()] > 1;
}

std::string namesOf(Processes const& processes) {
    std::string names;
    for (Process const& process : processes)
        names += (names.empty() ? "" : ", ") + process.name();
    return names;
}

Json jsonOf(Processes const& processes) {
    Json all = Json::array();
    for (Process const& process : processes)
        all.push_back({{"actor", process.actor}, {"pid", process.pid}});
    return all;
}

/** Those that have terminations of this slot. One that has others as well is the link of this
 * machine, and the others are those of processes on other machines. */
std::set<int> processesOfThisSlot() {
    Transport::TransportLayer const& layer = Transport::TransportLayer::instance();
    unsigned char const slot = Transport::IdInfo::instance().getSlot();
    std::set<int> all;
    for (Transport::TerminationId const id : layer.getTerminations()) {
        if (id.slotId() == slot)
            all.insert(layer.ownerOf(id).process);
    }
    return all;
}

}  // namespace

Processes presentProcesses(Asking& asking) {
    TreflectORB const& orb = *TreflectORB::getInstance(NSID_UNIT);
    Transport::TransportLayer const& layer = Transport::TransportLayer::instance();
    std::set<int> const ofThisSlot = processesOfThisSlot();
    unsigned char const slot = Transport::IdInfo::instance().getSlot();
    // By process, and, where they are of another machine, by termination.
    std::map<std::pair<int, unsigned int>, Process> found;
    for (Transport::TerminationId const id : layer.getTerminations()) {
        NamespaceId const ns = orb.getNamespaceFromGroup(id.groupId());
        bool const isOfOtherUnit = ns == NSID_UNIT && id.groupId() != orb.termId().groupId();
        Transport::Owner const owner = layer.ownerOf(id);
        if (ns == NSID_UNDEF || isOfOtherUnit || owner.process == 0 || owner.process == getpid())
            continue;
        bool const elsewhere = id.slotId() != slot && ofThisSlot.count(owner.process) > 0;
        Process& process = found[{owner.process, elsewhere ? id.value() : 0}];
        process.pid = elsewhere ? 0 : owner.process;
        process.actor = owner.actor;
        process.slot = id.slotId();
        auto const place = ns == NSID_UNIT ? process.brokers.begin() : process.brokers.end();
        process.brokers.insert(place, orb.convertId(id));
    }
    Processes processes;
    for (auto& entry : found) {
        if (entry.second.pid != 0)
            askSystem(entry.second);
        for (TreflectOrbId const broker : entry.second.brokers) {
            if (entry.second.isStopped)
                asking.giveUp(broker);
        }
        processes.push_back(std::move(entry.second));
    }
    std::stable_sort(processes.begin(), processes.end(),
                     [](Process const& a, Process const& b) { return a.actor < b.actor; });
    tellNamesakesApart(processes);
    return processes;
}

std::string Process::name() const {
    if (pid != 0)
        return fmt::format("{}.{}", actor, pid);
    return hasNamesake ? fmt::format("{}@{}#{:x}", actor, slot, broker().value())
                       : fmt::format("{}@{}", actor, slot);
}

Processes matching(Processes const& processes, std::string const& pattern) {
    if (pattern.empty())
        return processes;
    std::string const name = pattern.rfind("process/", 0) == 0 ? pattern.substr(8) : pattern;
    Wildcard const wildcard(name);
    Processes selected;
    for (Process const& process : processes) {
        if (wildcard.matches(process.actor) || wildcard.matches(process.name()) ||
            wildcard.matches(std::to_string(process.pid)))
            selected.push_back(process);
    }
    return selected;
}

Processes select(Processes const& processes, std::string const& pattern) {
    Processes selected = matching(processes, pattern);
    if (selected.empty() && !pattern.empty())
        throw Failure(ExitCode::kNotThere, "there is no process \"" + pattern + "\"");
    return selected;
}

Process const* ownerOf(Processes const& processes, unsigned int broker) {
    for (Process const& process : processes) {
        for (TreflectOrbId const own : process.brokers) {
            if (own.value() == broker)
                return &process;
        }
    }
    return nullptr;
}

std::string nameOfOwner(Processes const& processes, unsigned int broker) {
    Process const* const owner = ownerOf(processes, broker);
    return owner ? owner->name() : fmt::format("broker 0x{:08X}", broker);
}

void Missing::tell(Output& output) const {
    if (!silent_.empty())
        output.complain("no answer in time: " + namesOf(silent_));
    if (!untold_.empty())
        output.note("without process object: " + namesOf(untold_) + " (" + kHowToEnable + ")");
}

Json Missing::json() const {
    return {{"silent", jsonOf(silent_)}, {"withoutProcessObject", jsonOf(untold_)}};
}
