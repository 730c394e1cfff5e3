#include "Facts.h"

std::uint64_t Facts::sent() const {
    std::uint64_t sum = 0;
    for (processobject::Traffic const& counted : traffic)
        sum += counted.sent;
    return sum;
}

std::uint64_t Facts::failed() const {
    std::uint64_t sum = 0;
    for (processobject::Traffic const& counted : traffic)
        sum += counted.failed;
    return sum;
}

std::optional<Facts> factsOf(TreflectProcessClient const& client) {
    auto const identity = client.getIdentity();
    auto const usage = client.getUsage();
    auto const traffic = client.getTraffic();
    auto const calls = client.getCalls();
    if (!identity || !usage || !traffic || !calls)
        return std::nullopt;
    return Facts{identity.value(), usage.value(), traffic.value(), calls.value()};
}

char const* stateOf(Process const& process, Answer<Facts> const& facts) {
    if (process.isStopped)
        return "stopped";
    if (facts)
        return "ok";
    return facts.timedOut() ? "does not answer" : "without process object";
}

Json jsonOf(Process const& process, Answer<Facts> const& facts) {
    Json brokers = Json::array();
    for (TreflectOrbId const broker : process.brokers)
        brokers.push_back(broker.value());
    Json told = {{"actor", process.actor}, {"pid", process.pid},
                 {"slot", process.slot},   {"here", process.pid != 0},
                 {"brokers", brokers},     {"state", stateOf(process, facts)}};
    if (!facts && process.threads != 0)
        told.update(
            {{"uptime", process.uptime}, {"memory", process.memory}, {"threads", process.threads}});
    if (!facts)
        return told;
    processobject::Identity const& identity = facts.value.identity;
    processobject::Usage const& usage = facts.value.usage;
    told.update({{"actor", identity.actor},
                 {"pid", identity.pid},
                 {"user", identity.user},
                 {"version", identity.version},
                 {"started", identity.started},
                 {"commandLine", identity.commandLine},
                 {"uptime", usage.uptime},
                 {"memory", usage.memory},
                 {"threads", usage.threads},
                 {"descriptors", usage.descriptors},
                 {"mostDescriptors", usage.mostDescriptors},
                 {"objects", usage.objects}});
    return told;
}

double rateOf(std::uint64_t before, std::uint64_t after, double seconds) {
    return seconds > 0 && after > before ? static_cast<double>(after - before) / seconds : 0;
}
