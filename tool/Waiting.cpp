#include "Waiting.h"

#include <fmt/format.h>

#include <functional>
#include <map>

namespace {

using processobject::Call;
using Calls = std::vector<Call>;

std::string operationOf(Call const& call) {
    if (!call.operation.empty() || call.object == 0)
        return call.operation;
    return fmt::format("0x{:X}", call.methodCode);
}

/** Which processes lead to which, over any number of others. */
using Reach = std::map<std::string, std::set<std::string>>;

Reach reachOf(std::vector<WaitingCall> const& calls) {
    Reach next;
    for (WaitingCall const& call : calls)
        next[call.from].insert(call.to);
    Reach reach;
    for (auto const& from : next) {
        std::set<std::string>& seen = reach[from.first];
        std::function<void(std::string const&)> const visit = [&](std::string const& at) {
            for (std::string const& to : next[at]) {
                if (seen.insert(to).second)
                    visit(to);
            }
        };
        visit(from.first);
    }
    return reach;
}

}  // namespace

Json WaitingCall::json() const {
    return {{"from", from},
            {"thread", thread},
            {"to", to},
            {"what", what},
            {"object", object},
            {"operation", operation},
            {"milliseconds", milliseconds}};
}

WaitingCall waitingCall(std::string const& from, Call const& call, std::string const& to,
                        std::string const& object) {
    std::string const number = fmt::format("rmi_{:X}_{:X}", call.target, call.object);
    return {from,
            call.thread,
            to,
            call.what,
            !object.empty() || call.object == 0 ? object : number,
            operationOf(call),
            call.milliseconds};
}

std::vector<WaitingCall> waitingCalls(Tool& tool, Processes const& processes, Missing& missing) {
    auto const answers = askProcessObjects<Calls>(
        tool.asking(), processes,
        [](TreflectProcessClient const& client) { return valueOf(client.getCalls()); });
    std::vector<WaitingCall> all;
    for (std::size_t i = 0; i < processes.size(); ++i) {
        missing.note(processes[i], answers[i]);
        for (Call const& call : answers[i].value) {
            std::string const object =
                call.object == 0 ? "" : tool.objects().all().nameOf({call.target, call.object});
            all.push_back(waitingCall(processes[i].name(), call,
                                      nameOfOwner(tool.processes(), call.target), object));
        }
    }
    return all;
}

std::vector<std::set<std::string>> cyclesOf(std::vector<WaitingCall> const& calls) {
    Reach const reach = reachOf(calls);
    auto const leads = [&](std::string const& from, std::string const& to) {
        auto const found = reach.find(from);
        return found != reach.end() && found->second.count(to) != 0;
    };
    std::set<std::set<std::string>> cycles;
    for (auto const& entry : reach) {
        std::set<std::string> cycle;
        for (std::string const& other : entry.second) {
            if (leads(other, entry.first))
                cycle.insert(other);
        }
        if (!cycle.empty())
            cycles.insert(cycle);
    }
    return {cycles.begin(), cycles.end()};
}
