// reflectorb-link status: asks the link that runs, and shows what it says.
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>

#include "oswrap/Clock.h"
#include "platform/transport/link/LinkOptions.h"
#include "platform/transport/link/Status.h"
#include "platform/transport/link/StatusSocket.h"

namespace Link {
namespace {

using Json = nlohmann::ordered_json;

/** What grows while the command looks: the rates are made of it. */
constexpr std::chrono::milliseconds kWhile{500};
/** For both looks together. */
constexpr long long kPatience = 5'000'000'000;
constexpr char const* kCounters[] = {"messagesOut", "messagesIn", "bytesOut", "bytesIn"};

char const* complaintOf(StatusAnswer::Kind kind) {
    switch (kind) {
        case StatusAnswer::Kind::NoLink:
            return "no link runs for";
        case StatusAnswer::Kind::Forbidden:
            return "this user may not ask the link of";
        default:
            return "no answer of the link of";
    }
}

/** Null, with a line on standard error, when there is nobody who tells. */
Json ask(std::string const& folder, long long until) {
    StatusAnswer const answer = askStatus(folder, until);
    Json told = answer.kind == StatusAnswer::Kind::Told
                    ? Json::parse(answer.document, nullptr, false)
                    : Json();
    if (told.is_object() && told.contains("peers"))
        return told;
    std::fprintf(stderr, "reflectorb-link: %s %s\n", complaintOf(answer.kind), folder.c_str());
    return nullptr;
}

/** Adds the rates to the later one of two answers. */
void addRates(Json const& before, Json& after) {
    double const seconds = after["seconds"].get<double>() - before["seconds"].get<double>();
    for (Json& peer : after["peers"]) {
        for (char const* const counter : kCounters)
            peer[std::string(counter) + "PerSecond"] = 0.0;
        for (Json const& former : before["peers"]) {
            if (former["slot"] != peer["slot"] || former["machine"] != peer["machine"])
                continue;
            for (char const* const counter : kCounters) {
                double const more = peer[counter].get<double>() - former[counter].get<double>();
                if (seconds > 0 && more > 0)  // less: its link has begun anew
                    peer[std::string(counter) + "PerSecond"] = more / seconds;
            }
        }
    }
}

/** "1.2 M" of 1234567 */
std::string shortly(double number) {
    constexpr char const* kUnits[] = {"", " k", " M", " G", " T"};
    std::size_t unit = 0;
    for (; number >= 1000 && unit < 4; ++unit)
        number /= 1000;
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f%s" : "%.1f%s", number, kUnits[unit]);
    return text;
}

std::string number(Json const& peer, char const* name) {
    return shortly(peer[name].get<double>());
}

void show(Json const& told) {
    std::string const interface = told["interface"].get<std::string>();
    std::printf("slot %d, machine %s: %s%s%s, for %.0f s\n", told["slot"].get<int>(),
                told["machine"].get<std::string>().c_str(),
                told["state"].get<std::string>().c_str(), interface.empty() ? "" : " over ",
                interface.c_str(), told["seconds"].get<double>());
    if (told["peers"].empty())
        return;
    constexpr char const* kRow = "%4s  %-16s %-11s %9s %8s %9s %9s %9s %9s %8s %8s %8s\n";
    std::printf(kRow, "SLOT", "MACHINE", "STATE", "SECONDS", "TERMIN.", "MSG/S OUT", "MSG/S IN",
                "BYTES OUT", "BYTES IN", "WAITING", "RETURNED", "PARTINGS");
    for (Json const& peer : told["peers"])
        std::printf(
            kRow, std::to_string(peer["slot"].get<int>()).c_str(),
            peer["machine"].get<std::string>().c_str(), peer["state"].get<std::string>().c_str(),
            std::to_string(peer["seconds"].get<long>()).c_str(),
            number(peer, "terminations").c_str(), number(peer, "messagesOutPerSecond").c_str(),
            number(peer, "messagesInPerSecond").c_str(), number(peer, "bytesOut").c_str(),
            number(peer, "bytesIn").c_str(), number(peer, "unsettledBytes").c_str(),
            number(peer, "returned").c_str(), number(peer, "partings").c_str());
}

/** Whether all in sight are linked, and at least so many. */
bool allIsWell(Json const& told, std::size_t machines) {
    for (Json const& peer : told["peers"])
        if (peer["state"] != "linked")
            return false;
    return told["peers"].size() >= machines;
}

}  // namespace

int showStatus(StatusRequest const& request, std::string const& folder) try {
    long long const until = OSWrap::Clock::nowNanoseconds() + kPatience;
    Json const before = ask(folder, until);
    if (before.is_null())
        return kNoLink;
    std::this_thread::sleep_for(kWhile);
    Json after = ask(folder, until);
    if (after.is_null())
        return kNoLink;
    addRates(before, after);
    if (request.json)
        std::printf("%s\n", after.dump(2).c_str());
    else
        show(after);
    return allIsWell(after, request.machines) ? kDone : kNotAllLinked;
} catch (Json::exception const& error) {
    std::fprintf(stderr, "reflectorb-link: the link of %s is of another version: %s\n",
                 folder.c_str(), error.what());
    return kNoLink;
}

}  // namespace Link
