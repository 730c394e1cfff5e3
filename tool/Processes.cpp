#include "Processes.h"

#include <fmt/format.h>
#include <transport.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "Failure.h"
#include "Wildcard.h"

char const kHowToEnable[] =
    "a process tells more with REFLECTORB_PROCESS_OBJECT=1 in its environment, or a "
    "TreflectProcessObject";

namespace {

/** What the system says of a process: 'T' for one that is stopped. */
char stateOf(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(file, text);
    std::size_t const end = text.rfind(')');  // behind the program's name
    return end == std::string::npos || end + 2 >= text.size() ? '?' : text[end + 2];
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

}  // namespace

Processes presentProcesses(Asking& asking) {
    TreflectORB const& orb = *TreflectORB::getInstance(NSID_UNIT);
    Transport::TransportLayer const& layer = Transport::TransportLayer::instance();
    std::map<int, Process> found;
    for (Transport::TerminationId const id : layer.getTerminations()) {
        NamespaceId const ns = orb.getNamespaceFromGroup(id.groupId());
        bool const isOfOtherUnit = ns == NSID_UNIT && id.groupId() != orb.termId().groupId();
        Transport::Owner const owner = layer.ownerOf(id);
        if (ns == NSID_UNDEF || isOfOtherUnit || owner.process == 0 || owner.process == getpid())
            continue;
        Process& process = found[owner.process];
        process.pid = owner.process;
        process.actor = owner.actor;
        process.slot = id.slotId();
        auto const place = ns == NSID_UNIT ? process.brokers.begin() : process.brokers.end();
        process.brokers.insert(place, orb.convertId(id));
    }
    Processes processes;
    for (auto& entry : found) {
        entry.second.isStopped = stateOf(entry.first) == 'T' || stateOf(entry.first) == 't';
        for (TreflectOrbId const broker : entry.second.brokers) {
            if (entry.second.isStopped)
                asking.giveUp(broker);
        }
        processes.push_back(std::move(entry.second));
    }
    std::stable_sort(processes.begin(), processes.end(),
                     [](Process const& a, Process const& b) { return a.actor < b.actor; });
    return processes;
}

Processes select(Processes const& processes, std::string const& pattern) {
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
    if (selected.empty())
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
