// A process with brokers, driven by lines on standard input:
//
//   publish NAME [NS]     makes a probe; answers "published IOID"
//   release               lets go all held calls; answers "released"
//   call NAME NUMBER      calls echo of an object; answers "called 1 NUMBER" or "called 0 CODE"
//   callforever NAME N    N threads call echo until a call fails; then "ended" per thread
//   hold NAME             calls hold of an object on a thread of its own; "held CODE" at its end
//   holding NAME          answers "holding COUNT", of held calls
//   deleteaside           deletes all brokers on a thread of its own; "deleting" once it has begun
//   script CODE           makes the log-collection script end with that code; answers "script"
//   exit CODE             exit on a thread of its own
//   return CODE           return from main
#include <map>
#include <memory>
#include <thread>

#include "ActorSide.h"
#include "Probe.h"
#include "reflect/ScriptRunner.h"
#include "transport.h"

namespace {

using testsupport::answer;

int scriptResult = 0;

int instead(char const* path) {
    answer("script ", path);
    return scriptResult << 8;
}

ProbeClient::Answer callOnce(std::string const& name, unsigned int method, unsigned int number) {
    TreflectHandlerState const handlerState(true);
    ProbeClient client{TipprmiOID(name, NSID_UNIT)};
    return client.call(method, number);
}

class Actor {
public:
    void handle(std::string const& verb, std::istringstream& words);

private:
    void callForever(std::string const& name, int threads);

    std::map<std::string, std::unique_ptr<Probe>> probes_;
};

void Actor::handle(std::string const& verb, std::istringstream& words) {
    std::string name;
    unsigned int number = 0;
    if (verb == "publish") {
        int ns = NSID_UNIT;
        words >> name >> ns;
        TreflectHandlerState const handlerState(true);
        auto& probe = probes_[name];
        probe = std::make_unique<Probe>(name, static_cast<NamespaceId>(ns));
        answer("published ", std::hex, probe->getInternalOID(), " ", probe->orbId().value());
    } else if (verb == "release") {
        for (auto const& entry : probes_)
            entry.second->release();
        answer("released");
    } else if (verb == "call") {
        words >> name >> number;
        ProbeClient::Answer const result = callOnce(name, kEcho, number);
        bool const succeeded = result.exceptionType == 0;
        answer("called ", succeeded, " ", succeeded ? result.number : result.exceptionCode);
    } else if (verb == "callforever") {
        words >> name >> number;
        callForever(name, static_cast<int>(number));
    } else if (verb == "hold") {
        words >> name;
        std::thread([name] { answer("held ", callOnce(name, kHold, 0).exceptionCode); }).detach();
    } else if (verb == "holding") {
        words >> name;
        answer("holding ", probes_.at(name)->held());
    } else if (verb == "deleteaside") {
        Transport::TerminationId const broker = TreflectORB::getInstance(NSID_UNIT)->termId();
        std::thread(prepareOrbForDeletion).detach();
        testsupport::eventually(
            [&] { return !Transport::TransportLayer::instance().exists(broker); });
        answer("deleting");
    } else if (verb == "script") {
        words >> scriptResult;
        setScriptRunner(&instead);
        answer("script");
    } else if (verb == "exit") {
        words >> number;
        std::thread([number] { std::exit(static_cast<int>(number)); }).join();
    }
}

void Actor::callForever(std::string const& name, int threads) {
    for (int i = 0; i < threads; ++i)
        std::thread([name] {
            TreflectORB::enterHandlerState(true);
            {
                ProbeClient client{TipprmiOID(name, NSID_UNIT)};
                for (unsigned int n = 0; client.call(kEcho, n).exceptionType == 0; ++n)
                    if (n == 0)
                        answer("calling");
            }
            TreflectORB::leaveHandlerState(true);
            answer("ended");
        }).detach();
}

}  // namespace

int main() {
    static auto& actor = *new Actor;  // its probes outlive exit
    int code = 0;
    testsupport::obeyLines([&](std::string const& verb, std::istringstream& words) {
        if (verb != "return")
            actor.handle(verb, words);
        return verb != "return" || !(words >> code);
    });
    return code;
}
