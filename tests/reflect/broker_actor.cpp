// A process with brokers, driven by lines on standard input.
#include <atomic>
#include <map>
#include <thread>

#include "ActorSide.h"
#include "Permitted.h"
#include "Probe.h"
#include "reflect/broker/ScriptRunner.h"
#include "transport.h"

namespace {

using testsupport::answer;

auto& probes = *new std::map<std::string, Permitted<Probe>>;  // they outlive exit
int scriptResult = 0;
std::atomic<bool> calm{false};
std::thread flooding;
int exitCode = 0;

int instead(char const* path) {
    answer("script ", path);
    return scriptResult << 8;
}

ProbeClient::Answer callOnce(std::string const& name, unsigned int method, unsigned int number) {
    return permitted([&] { return ProbeClient(oid(name)).call(method, number); });
}

void callForever(std::string const& name) {
    TreflectHandlerState const handlerState(true);
    ProbeClient client(oid(name));
    for (unsigned int n = 0; client.call(kEcho, n).exceptionType == 0; ++n)
        if (n == 0)
            answer("calling");
}

void flood(std::string const& name, int oneWay) {
    TreflectHandlerState const handlerState(true);
    for (ProbeClient client(oid(name)); !calm; client.call(kEcho, 2))
        for (int i = 0; i < oneWay; ++i)
            client.send(kEcho, 1);
}

void deleteAside() {
    Transport::TerminationId const broker = TreflectORB::getInstance(NSID_UNIT)->termId();
    std::thread(prepareOrbForDeletion).detach();
    testsupport::eventually([&] { return !Transport::TransportLayer::instance().exists(broker); });
    answer("deleting");
}

testsupport::Commands const commands{
    // Makes a probe; "published IOID BROKER".
    {"publish",
     [](std::string name) {
         auto const& probe = probes[name] = makePermitted<Probe>(name);
         answer("published ", std::hex, probe->getInternalOID(), " ", probe->orbId().value());
     }},
    // Calls echo of an object; "called 1 NUMBER" or "called 0 CODE".
    {"call",
     [](std::string name, unsigned int number) {
         auto const result = callOnce(name, kEcho, number);
         bool const succeeded = result.exceptionType == 0;
         answer("called ", succeeded, " ", succeeded ? result.number : result.exceptionCode);
     }},
    // So many threads call echo until a call fails; "calling" once each has begun.
    {"callforever",
     [](std::string name, int threads) {
         for (int i = 0; i < threads; ++i)
             std::thread(callForever, name).detach();
     }},
    // Calls hold of an object on a thread of its own.
    {"hold", [](std::string name) { std::thread(callOnce, name, kHold, 0).detach(); }},
    // How many calls are held; and whether one has begun to be held.
    {"holding", [](std::string name) { answer("holding ", probes.at(name)->held()); }},
    {"entered", [](std::string name) { answer("entered ", probes.at(name)->entered().isOpen()); }},
    // Ends all holding.
    {"release", [](std::string name) { probes.at(name)->release(); }},
    // Calls echo until "calm", so many times one-way and once not, on a thread of its own.
    {"flood", [](std::string name, int oneWay) { flooding = std::thread(flood, name, oneWay); }},
    {"calm",
     [] {
         calm = true;
         flooding.join();
     }},
    // Deletes all brokers on a thread of its own; "deleting" once it has begun.
    {"deleteaside", deleteAside},
    // Makes the log-collection script end with that code.
    {"script",
     [](int code) {
         scriptResult = code;
         setScriptRunner(&instead);
         answer("script");
     }},
    // Ends by exit on a thread of its own, or by return from main.
    {"exit", [](int code) { std::thread([code] { std::exit(code); }).join(); }},
    {"return", [](int code) {
         exitCode = code;
         return false;
     }}};

}  // namespace

int main() {
    testsupport::obeyLines(commands);
    return exitCode;
}
