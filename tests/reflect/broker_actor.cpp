// A process with brokers, driven by lines on standard input:
//
//   publish NAME          makes a probe; answers "published IOID BROKER"
//   call NAME NUMBER      calls echo of an object; answers "called 1 NUMBER" or "called 0 CODE"
//   callforever NAME N    N threads call echo until a call fails; "calling" once each has begun
//   hold NAME             calls hold of an object on a thread of its own
//   holding NAME          answers "holding COUNT", of held calls
//   entered NAME          answers "entered 1" when a call has begun to be held
//   flood NAME N          calls echo of an object for ever, N times one-way and once not, on a
//                         thread of its own
//   calm                  ends that
//   release NAME          ends all holding of a probe
//   deleteaside           deletes all brokers on a thread of its own; "deleting" once it has begun
//   script CODE           makes the log-collection script end with that code; answers "script"
//   exit CODE             exit on a thread of its own
//   return CODE           return from main
#include <map>
#include <memory>
#include <thread>

#include "ActorSide.h"
#include "Permitted.h"
#include "Probe.h"
#include "reflect/broker/ScriptRunner.h"
#include "transport.h"

namespace {

using testsupport::answer;

int scriptResult = 0;
std::atomic<bool> calm{false};
std::thread flooding;

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

void obey(std::string const& verb, std::istringstream& words) {
    static auto& probes = *new std::map<std::string, std::unique_ptr<Probe>>;  // they outlive exit
    std::string name;
    if (verb != "script" && verb != "exit")
        words >> name;
    int number = 0;
    words >> number;
    if (verb == "publish") {
        TreflectHandlerState const handlerState(true);
        auto const& probe = probes[name] = std::make_unique<Probe>(name);
        answer("published ", std::hex, probe->getInternalOID(), " ", probe->orbId().value());
    } else if (verb == "call") {
        auto const result = callOnce(name, kEcho, static_cast<unsigned int>(number));
        bool const succeeded = result.exceptionType == 0;
        answer("called ", succeeded, " ", succeeded ? result.number : result.exceptionCode);
    } else if (verb == "callforever") {
        for (int i = 0; i < number; ++i)
            std::thread(callForever, name).detach();
    } else if (verb == "hold") {
        std::thread([name] { callOnce(name, kHold, 0); }).detach();
    } else if (verb == "holding") {
        answer("holding ", probes.at(name)->held());
    } else if (verb == "entered") {
        answer("entered ", probes.at(name)->entered().isOpen());
    } else if (verb == "flood") {
        flooding = std::thread([name, number] {
            TreflectHandlerState const handlerState(true);
            for (ProbeClient client(oid(name)); !calm; client.call(kEcho, 2))
                for (int i = 0; i < number; ++i)
                    client.send(kEcho, 1);
        });
    } else if (verb == "calm") {
        calm = true;
        flooding.join();
    } else if (verb == "release") {
        probes.at(name)->release();
    } else if (verb == "deleteaside") {
        Transport::TerminationId const broker = TreflectORB::getInstance(NSID_UNIT)->termId();
        std::thread(prepareOrbForDeletion).detach();
        testsupport::eventually(
            [&] { return !Transport::TransportLayer::instance().exists(broker); });
        answer("deleting");
    } else if (verb == "script") {
        scriptResult = number;
        setScriptRunner(&instead);
        answer("script");
    } else if (verb == "exit") {
        std::thread([number] { std::exit(number); }).join();
    }
}

}  // namespace

int main() {
    int code = 0;
    testsupport::obeyLines([&](std::string const& verb, std::istringstream& words) {
        if (verb == "return")
            return !(words >> code);
        obey(verb, words);
        return true;
    });
    return code;
}
