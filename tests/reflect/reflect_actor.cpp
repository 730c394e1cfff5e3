// A process with brokers, objects and observers, driven by lines on standard input.
#include "ActorSide.h"
#include "DeskObject.h"
#include "Gauge.h"
#include "Permitted.h"
#include "Probe.h"
#include "Thing.h"
#include "process/PumpObject.h"
#include "reflect/broker/ScriptRunner.h"
#include "transport.h"

namespace {

using testsupport::answer;
using Name = std::string;

/** A watch, and what it has told. */
struct Followed {
    std::vector<unsigned int> values;
    bool hangs = false;  // when it is told the next value
    std::unique_ptr<TreflectWatch<unsigned int>> watch;
};

/** Does not answer the first observer that registers; calls of setHeld wait for one of ping. */
class ShyLamp : public LampObject {
public:
    using LampObject::LampObject;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        constexpr unsigned int kRegister = 1000;
        if (mc == kRegister && registrations_++ == 0)
            return false;
        if (mc == lamp::kHeld)
            return serve(lamp::kClass, cc, mc, in, out, &ShyLamp::heldNow);
        bool const served = LampObject::dispatch(withResponse, cc, mc, in, out);
        if (mc == device::kPing)
            release();  // its observers have been told of it by now
        return served;
    }

private:
    unsigned int heldNow() const { return held; }

    unsigned int registrations_ = 0;  // guarded by the run permission
};

// All that outlives exit.
auto& probes = *new std::map<Name, Permitted<Probe>>;
int scriptResult = 0;
std::atomic<bool> calm{false};
std::thread flooding;
int exitCode = 0;
// Guarded by the run permission.
auto& lamps = *new std::map<Name, std::unique_ptr<LampObject>>;
auto& pumps = *new std::map<Name, std::unique_ptr<PumpObject>>;
auto& things = *new std::map<Name, std::unique_ptr<Thing>>;
auto& observers = *new std::map<Name, std::unique_ptr<Watcher>>;
auto& followed = *new std::map<Name, Followed>;

// ---- Calls of probes ---------------------------------------------------------------------------

ProbeClient::Answer callOnce(Name const& name, unsigned int method, unsigned int number) {
    return permitted([&] { return ProbeClient(oid(name)).call(method, number); });
}

void tell(ProbeClient::Answer const& result) {
    bool const succeeded = result.exceptionType == 0;
    answer("called ", succeeded, " ", succeeded ? result.number : result.exceptionCode);
}

void callForever(Name const& name) {
    TreflectHandlerState const handlerState(true);
    ProbeClient client(oid(name));
    for (unsigned int n = 0; client.call(kEcho, n).exceptionType == 0; ++n)
        if (n == 0)
            answer("calling");
}

void flood(Name const& name, int oneWay, int calls) {
    TreflectHandlerState const handlerState(true);
    for (ProbeClient client(oid(name)); !calm;) {
        for (int i = 0; i < oneWay; ++i)
            client.send(kEcho, 1);
        for (int i = 0; i < calls; ++i)
            client.call(kEcho, 2);
    }
}

void deleteAside() {
    Transport::TerminationId const broker = TreflectORB::getInstance(NSID_UNIT)->termId();
    std::thread(prepareOrbForDeletion).detach();
    testsupport::eventually([&] { return !Transport::TransportLayer::instance().exists(broker); });
    answer("deleting");
}

int instead(char const* path) {
    answer("script ", path);
    return scriptResult << 8;
}

/** Each by itself, without the run permission. */
void addProcessCommands(testsupport::Commands& on) {
    // Makes a probe; "published IOID BROKER".
    on["publish"] = [](Name name) {
        auto const& probe = probes[name] = makePermitted<Probe>(name);
        answer("published ", std::hex, probe->getInternalOID(), " ", probe->orbId().value());
    };
    // Makes one that the whole node knows; "published".
    on["publishwide"] = [](Name name) {
        [[maybe_unused]] static auto const& probe =
            *new Permitted<Probe>(makePermitted<Probe>(name, NSID_NODE));
        answer("published");
    };
    // Calls echo of a probe; "called 1 NUMBER" or "called 0 CODE".
    on["call"] = [](Name name, unsigned int number) { tell(callOnce(name, kEcho, number)); };
    // The same by a handle that is kept: one request.
    on["callagain"] = [](Name name, unsigned int number) {
        static auto& clients = *new std::map<Name, ProbeClient>;  // outlives exit
        tell(permitted([&] {
            return clients.try_emplace(name, oid(name)).first->second.call(kEcho, number);
        }));
    };
    // So many threads call echo until a call fails; "calling" once each has begun.
    on["callforever"] = [](Name name, int threads) {
        for (int i = 0; i < threads; ++i)
            std::thread(callForever, name).detach();
    };
    // Calls hold of a probe on a thread of its own.
    on["hold"] = [](Name name) { std::thread(callOnce, name, kHold, 0).detach(); };
    // Makes one whom a probe calls in turn; "partner".
    on["partner"] = [](Name name, Name other) {
        permitted([&] { probes.at(name)->partner(oid(other)); });
        answer("partner");
    };
    // How many calls are held; whether one has begun to be held; and the end of all holding.
    on["holding"] = [](Name name) { answer("holding ", probes.at(name)->held()); };
    on["entered"] = [](Name name) { answer("entered ", probes.at(name)->entered().isOpen()); };
    on["release"] = [](Name name) { probes.at(name)->release(); };
    // Calls echo until "calm", so many times one-way and so many not, on a thread of its own.
    on["flood"] = [](Name name, int oneWay, int calls) {
        flooding = std::thread(flood, name, oneWay, calls);
    };
    on["calm"] = [] {
        calm = true;
        flooding.join();
    };
    // Deletes all brokers on a thread of its own; "deleting" once it has begun.
    on["deleteaside"] = deleteAside;
    // Makes the log-collection script end with that code.
    on["script"] = [](int code) {
        scriptResult = code;
        setScriptRunner(&instead);
        answer("script");
    };
    // Ends by exit on a thread of its own, or by return from main.
    on["exit"] = [](int code) { std::thread([code] { std::exit(code); }).join(); };
    on["return"] = [](int code) {
        exitCode = code;
        return testsupport::End();
    };
}

// ---- Objects and observers ---------------------------------------------------------------------

template <class Object>
std::string makeLamp(Name const& name, Name const& parentName) {
    TreflectObject const parent(oid(parentName));
    lamps[name] = std::make_unique<Object>(name, parentName.empty() ? nullptr : &parent);
    return "made";
}

/** Made when it is needed. */
Watcher& observer(Name const& name) {
    auto& made = observers[name];
    if (!made)
        made = std::make_unique<Watcher>(name);
    return *made;
}

bool isHeld(Name const& name, std::chrono::milliseconds limit) {
    testsupport::Gate& entered = lamps.at(name)->entered();
    TreflectReleaseHandlerState const released;
    return entered.wait(limit);
}

TreflectMetaObject& classOf(Name const& hexadecimal) {
    return thingClass(static_cast<unsigned int>(std::stoul(hexadecimal, nullptr, 16)));
}

void hang() {
    TreflectReleaseHandlerState const released;
    answer("hangs");
    testsupport::Gate().wait(std::chrono::hours(1));
}

/** As those of observers, each is obeyed under the run permission, and answered by a line. */
void addObjectCommands(testsupport::Commands& on) {
    // Logs so many records.
    on["log"] = [](unsigned int records) {
        for (unsigned int i = 1; i <= records; ++i)
            REFLECTORB_LOG(4, "reflect_actor", "record %u", i);
        return "logged";
    };
    // Objects, below a parent if one is named.
    on["lamp"] = makeLamp<LampObject>;
    on["combi"] = makeLamp<CombiObject>;
    // One that is announced.
    on["shy"] = [](Name name) {
        makeLamp<ShyLamp>(name, "");
        lamps.at(name)->sendCreationEvent(&lampMeta);
        return "made";
    };
    on["pump"] = [](Name name, unsigned int variant) {
        pumps[name] = std::make_unique<PumpObject>(name, variant);
        return "made";
    };
    on["desk"] = [] {
        [[maybe_unused]] static auto const& server = *new desk::Server;
        return "made";
    };
    // One that is announced, of a class that is given in hexadecimal digits; "created IOID BROKER
    // TERMINATION".
    on["create"] = [](Name name, Name classId) {
        unsigned int const id = classOf(classId).getClassId();
        Thing const& thing = *(things[name] = std::make_unique<Thing>(name, id));
        unsigned int const ioid = thing.getInternalOID();
        thing.come();
        TreflectORB const& orb = *TreflectORB::getInstance(NSID_UNIT);
        answer("created ", std::hex, ioid, " ", orb.orbId().value(), " ", orb.termId().value());
    };
    // Out of the map first: others may create objects while this one waits.
    on["destroy"] = [](Name name) {
        lamps.erase(name);
        if (std::unique_ptr<Thing> const gone = std::move(things[name]))
            gone->go();
        return "destroyed";
    };
    // Makes another object the value of a lamp's attribute Next.
    on["next"] = [](Name name, Name other) {
        lamps.at(name)->next = TreflectObject(oid(other));
        return "next";
    };
    on["pings"] = [](Name name) { return "pings " + std::to_string(lamps.at(name)->pings()); };
    on["level"] = [](Name name) { return "level " + std::to_string(lamps.at(name)->level); };
    // Waits until a call of a lamp is held; the same for a second at most, "done 1" if one is; and
    // lets all go on that are.
    on["awaitheld"] = [](Name name) {
        return isHeld(name, testsupport::kPatience) ? "held" : "nobody";
    };
    on["heldsoon"] = [](Name name) {
        return "done " + std::to_string(isHeld(name, std::chrono::seconds(1)));
    };
    on["letgo"] = [](Name name) {
        lamps.at(name)->release();
        return "gone";
    };
    // Sets Level of a lamp, wherever it is; "stored ok" or "stored CODE".
    on["store"] = [](Name name, unsigned int level) {
        auto const stored = TreflectObject(oid(name)).attribute("Level").store(level);
        return "stored " + (stored ? "ok" : std::to_string(stored.code()));
    };
    // Sets Held of a lamp, wherever it is; "set 0" when that went well.
    on["setheld"] = [](Name name) {
        return "set " + std::to_string(TreflectObject(oid(name)).attribute("Held").set(5u));
    };
}

void addObserverCommands(testsupport::Commands& on) {
    // What the update of an observer answers: yes, as from the first, no, or "hang" for never,
    // after a line "hangs".
    on["answers"] = [](Name name, Name answer) {
        observer(name).answer = answer == "yes";
        if (answer == "hang")
            observer(name).react = hang;
        return "will";
    };
    // Has it told of calls, before or after them; "observing 1".
    on["observe"] = [](Name name, Name object, Name operation, Name kind) {
        TreflectObject const observed(oid(object));
        TreflectOperation& called = observed.operation(operation);
        bool const done = kind == "before" ? called.preObserve(&observer(name))
                                           : called.postObserve(&observer(name));
        return "observing " + std::to_string(done);
    };
    // The same as a guard; "guarding 1".
    on["guard"] = [](Name name, Name object, Name operation) {
        TreflectObject const guarded(oid(object));
        return "guarding " + std::to_string(guarded.operation(operation).guard(&observer(name)));
    };
    on["unobserve"] = [](Name name, Name object, Name operation) {
        TreflectObject const observed(oid(object));
        observed.operation(operation).removeObserver(&observer(name));
        return "unobserved";
    };
    // How often it was told, the first value of the last time, and whose call it was.
    on["told"] = [](Name name) {
        Watcher const& told = observer(name);
        return "told " + std::to_string(told.told.size()) + " " +
               (told.values.empty() ? "none" : std::to_string(told.values[0])) + " " +
               (told.told.empty() ? "nobody" : told.told.back());
    };
    // Has the object itself change Level of a lamp.
    on["change"] = [](Name name, unsigned int level) {
        lamps.at(name)->level = level;
        lamps.at(name)->changed("Level");
        return "changed";
    };
    // Watches an attribute; "following 0" if it has numbers.
    on["follow"] = [](Name name, Name object, Name attribute) {
        TreflectObject const watched(oid(object));
        Followed& one = followed[name];
        one.watch = std::make_unique<TreflectWatch<unsigned int>>(watched.attribute(attribute),
                                                                  [&one](unsigned int value) {
                                                                      one.values.push_back(value);
                                                                      if (one.hangs)
                                                                          hang();
                                                                  });
        return "following " + std::to_string(one.watch->isError());
    };
    on["hangs"] = [](Name name) {
        followed.at(name).hangs = true;
        return "will";
    };
    on["values"] = [](Name name) {
        Name values = "values ";
        for (unsigned int const value : followed[name].values)
            values += std::to_string(value) + " ";
        return values;
    };
    on["unfollow"] = [](Name name) {
        followed.at(name).watch.reset();
        return "unfollowed";
    };
    // Has it told of objects of a class: creations, existing (creations and what there is) or
    // deletions.
    on["watch"] = [](Name name, Name kind, Name classId) {
        if (kind == "deletions")
            classOf(classId).observeDeletions(&observer(name));
        else
            classOf(classId).observeCreations(&observer(name), kind == "existing");
        return "watching";
    };
    on["unwatch"] = [](Name name, Name classId) {
        classOf(classId).removeObserver(&observer(name));
        return "unwatched";
    };
    on["noticed"] = [](Name name) {
        Name names = "noticed ";
        for (Name const& one : observer(name).told)
            names += one + " ";
        return names;
    };
    on["know"] = [](Name classId) {
        classOf(classId);
        return "known";
    };
}

}  // namespace

int main() {
    preCreateReflectOrb();
    testsupport::Commands ofProcess;
    testsupport::Commands ofObjects;
    addProcessCommands(ofProcess);
    addObjectCommands(ofObjects);
    addObserverCommands(ofObjects);
    testsupport::obeyLines([&](std::string const& verb, std::istringstream& words) {
        if (verb.empty())
            return true;
        auto const found = ofProcess.find(verb);
        if (found != ofProcess.end())
            return found->second(words);
        return permitted([&] { return ofObjects.at(verb)(words); });
    });
    return exitCode;
}
