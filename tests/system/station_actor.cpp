// A process that serves stations and calls those of others, driven by lines on standard input. An
// answer that comes from a thread of its own may stand behind those of later lines.
#include <set>

#include "ActorSide.h"
#include "AllocationCount.h"
#include "Permitted.h"
#include "Station.h"

namespace {

using station::Client;
using station::Server;
using testsupport::answer;

// ---- Every type there and back ------------------------------------------------------------------

class Check {
public:
    explicit Check(std::string const& name) : far_(name) {}

    std::string faults() {
        numbersAndTexts();
        bodies();
        identifiers();
        failures();
        handles();
        return faults_;
    }

private:
    template <class Result, class... Arguments>
    TipprmiResult<Result> call(unsigned int method, Arguments const&... arguments) const {
        return tipprmiCall<Result>(far_, station::kClass, method, arguments...);
    }
    void expect(bool holds, std::string const& what) {
        if (!holds)
            faults_ += " " + what;
    }
    void numbersAndTexts() {
        for (unsigned int n : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu})
            expect(far_.answers(n), "rotate:" + std::to_string(n));
        TipprmiSequence<unsigned int> numbers;
        expect(call<int>(station::kSum, numbers).valueOr(1) == 0, "empty-sequence");
        for (unsigned int n = 0; n < 1000; ++n)
            numbers.push_back(n);
        expect(call<int>(station::kSum, numbers).value() == -499500, "sequence");
    }
    void bodies() {
        for (std::size_t size :
             {0u, 1u, 87u, 88u, 89u, 4096u, 16384u, 65537u, 1u << 20, 12u << 20}) {
            std::string const text = station::body(size);
            auto const back = call<std::string>(station::kFlip, text);
            expect(back && back.value() == station::flipped(text), "body:" + std::to_string(size));
        }
        expect(!call<std::string>(station::kFlip, std::string(16u << 20, 'x')),
               "body-beyond-the-limit");
        expect(far_.answers(), "after-large-bodies");
    }
    void identifiers() {
        using Identifiers = TipprmiSequence<TipprmiOID>;
        Identifiers names;
        names.push_back(TipprmiOID("name", NSID_NODE));
        names.setLength(2);
        auto const more = call<Identifiers>(station::kExtend, names, TipprmiOID(".x", NSID_UNIT));
        expect(more && more.value().getLength() == 2, "identifiers");
        expect(more.value()[0] == TipprmiOID("name.x", NSID_UNIT), "identifier");
        expect(more.value()[1].getIdString() == nullptr, "no-identifier");
        auto const first = call<TipprmiOID>(station::kIdentify);
        expect(first && first.value() == TipprmiOID("station", NSID_UNIT), "identifier-as-result");
        expect(call<TipprmiOID>(99).value() == TipprmiOID("", NSID_UNIT),
               "identifier-of-a-failure");
        for (unsigned int id : {0u, 0x01020304u, 0xFFFFFFFFu})
            expect(call<Transport::TerminationId>(station::kSame, Transport::TerminationId(id))
                           .valueOr(77u) == Transport::TerminationId(id),
                   "termination:" + std::to_string(id));
    }
    void failures() {
        for (unsigned int code : {0u, 42u, 0x80000000u, 0xFFFFFFFFu}) {
            auto const refused = call<void>(station::kRefuse, code);
            expect(!refused && refused.code() == code, "refuse:" + std::to_string(code));
        }
        expect(!call<void>(99), "unknown-method");
        expect(call<station::Curious>(station::kPeek, station::Curious{6}).value().value == 7,
               "read-too-far-while-written");
        TipprmiExceptionContainer container;
        container.setExceptionType(7);  // one of type 1 would hide the answer to its own query
        container.setExceptionData(TipprmiGeneralException(5));
        far_.getStub_()->setExceptionContainer(container);
        TipprmiGeneralException code;
        TipprmiExceptionContainer back = far_.getStub_()->getExceptionContainer();
        back.getExceptionData(code);
        expect(back.getExceptionType() == 7 && code.code() == 5, "container");
        expect(!call<unsigned int>(station::kTotal), "container-at-the-head-of-a-response");
        far_.getStub_()->setExceptionContainer(TipprmiExceptionContainer());
        expect(bool(call<unsigned int>(station::kTotal)), "container-taken-back");
    }
    /** A handle on an object of this process, without an identifier, leads back here. */
    void handles() {
        Server near("");
        expect(call<std::string>(station::kVisit, *near.getClient(), "abc").value() == "bca",
               "handle");
        expect(!call<std::string>(station::kVisit, Client(), "abc"), "handle-on-nothing");
    }

    Client const far_;
    std::string faults_;
};

// ---- Objects that observers are told of ---------------------------------------------------------

constexpr unsigned int kThing = 0x57A4;
TreflectMetaClass thingMeta("Starved", kThing, {}, {});

class Thing : public TreflectSkeleton<thingMeta> {
public:
    explicit Thing(std::string const& name)
        : TreflectSkeleton(TipprmiOID(name, NSID_UNIT), nullptr, name) {
        sendCreationEvent(&thingMeta);
    }
    ~Thing() override { sendDeletionEvent(&thingMeta); }
};

class Watcher : public TreflectObserver {
public:
    Watcher() : TreflectObserver(TipprmiOID("", NSID_UNIT), nullptr, "") {}
    bool update() override {
        Sated const sated;
        told_.insert(nameOf(*getSource()));
        return true;
    }
    bool knows(std::string const& name) const { return told_.count(name) != 0; }

private:
    std::set<std::string> told_;  // guarded by the run permission
};

// ---- The commands -------------------------------------------------------------------------------

using Name = std::string;

/** Under the run permission, under which each line is obeyed. They outlive exit. */
auto& stations = *new std::map<Name, std::unique_ptr<Server>>;
auto& handles = *new std::map<Name, std::unique_ptr<Client>>;
auto& things = *new std::map<Name, std::unique_ptr<Thing>>;
Watcher* watcher = nullptr;

/** Does what may run out of memory, having the run permission given anew; false when it does. */
template <class Act>
bool attempt(Act const& act) {
    TreflectReleaseHandlerState const outside;
    Sated const hungry(false);
    try {
        return permitted(act);
    } catch (std::bad_alloc const&) {
        return false;
    }
}

NamespaceId given(int ns) {
    return ns == 0 ? NSID_UNIT : static_cast<NamespaceId>(ns);
}

void publish(Name const& name, int ns) {
    auto& made = stations[name];
    made = std::make_unique<Server>(name, given(ns));
    TreflectORB const& orb = *TreflectORB::getInstance(given(ns));
    answer(std::hex, "published ", made->getInternalOID(), " ", orb.orbId().value(), " ",
           orb.termId().value());
}

void find(Name const& name, int ns) {
    auto const location =
        TreflectORB::getInstance(NSID_UNIT)->locateObject(TipprmiOID(name, given(ns)));
    answer(std::hex, "found ", location.getInternalOID(), " ", location.orbId().value());
}

void callOften(Client const& far, unsigned int count) {
    unsigned int failed = 0;
    answer("calling");
    for (unsigned int i = 0; i < count; ++i) {
        TreflectHandlerState const inside(true);
        failed += !far.answers(i);
    }
    answer("failed ", failed);
}

void add(Name const& name, unsigned int count) {
    unsigned int added = 0;
    for (unsigned int left = count; left > 0; --left)
        added += bool(handles.at(name)->add(1));
    answer("added ", added);
}

void counters(std::string const& broker) {
    auto const info = TreflectORB::getInstance(NSID_UNIT)->getPerfCnts(
        static_cast<unsigned int>(std::stoul(broker, nullptr, 16)));
    std::ostringstream words;
    for (unsigned int i = 0; i < info.counters.getLength(); ++i)
        words << " " << std::hex << info.counters[i].termination.value() << std::dec << ":"
              << info.counters[i].sent << ":" << info.counters[i].failed;
    answer("counters ", info.actor, words.str());
}

bool flips(Client const& far, std::size_t size) {
    std::string const text = station::body(size);
    auto const back = tipprmiCall<std::string>(far, station::kClass, station::kFlip, text);
    return back && back.value() == station::flipped(text);
}

bool serve(Name const& name) {
    return attempt([&] { return stations[name] = std::make_unique<Server>(name), true; });
}

bool call(Name const& name, std::size_t size) {
    return attempt([&] {
        auto& handle = handles[name];
        if (!handle || !handle->isConnected())
            handle = std::make_unique<Client>(name);
        return flips(*handle, size);
    });
}

bool make(Name const& name) {
    return attempt([&] {
        things.erase(name);
        return things[name] = std::make_unique<Thing>(name), true;
    });
}

bool watch() {
    return attempt([] {
        if (!watcher)
            watcher = new Watcher;
        return thingMeta.observeCreations(watcher, true), true;
    });
}

bool awaitNotice(Name const& name) {
    TreflectReleaseHandlerState const outside;
    return testsupport::eventually([&] { return permitted([&] { return watcher->knows(name); }); });
}

testsupport::Commands const commands{
    // Makes a station, in the unit or another namespace; "published IOID BROKER TERMINATION".
    {"publish", publish},
    {"unpublish", [](Name name) { return stations.erase(name) == 1; }},
    // The sum of the numbers added to a station of this process.
    {"total", [](Name name) { answer("total ", stations.at(name)->total()); }},
    // "found IOID BROKER"
    {"find", find},
    // Makes a handle and keeps it; whether it is connected.
    {"keep",
     [](Name name, int ns) {
         auto& handle = handles[name] = std::make_unique<Client>(name, given(ns));
         return handle->isConnected();
     }},
    // Calls rotate through the kept handle; "used 1" or "used 0 CODE".
    {"use",
     [](Name name) {
         auto const text = handles.at(name)->rotate(1, "abc");
         answer("used ", text.value() == "bca", text ? "" : " " + std::to_string(text.code()));
     }},
    // The same so many times on a thread of its own; "calling", then "failed COUNT".
    {"useoften",
     [](Name name, unsigned int count) {
         std::thread(callOften, std::cref(*handles.at(name)), count).detach();
     }},
    // Adds 1 so often, one-way, through the kept handle; "added COUNT".
    {"add", add},
    // As "use", through a new handle; "rotated 1 TEXT" or "rotated 0 CODE".
    {"rotate",
     [](Name name, unsigned int count, std::string text) {
         auto const back = Client(name).rotate(count, text);
         answer("rotated ", bool(back), " ", back ? back.value() : std::to_string(back.code()));
     }},
    // Calls with every type there and back; "checked" and the faults.
    {"check", [](Name name) { answer("checked", Check(name).faults()); }},
    {"allocations", [] { answer("allocations ", allocationCount()); }},
    // Of a broker; "counters ACTOR DESTINATION:SENT:FAILED...".
    {"counters", counters},
    {"active", Transport::Setup::activeSlot},
    // Deletes all brokers.
    {"renew", [] { return prepareOrbForDeletion(), true; }},

    // The nth allocation from now on fails, and so many behind it, of those that the following
    // commands make; whether it was reached.
    {"starve", [](unsigned long nth, unsigned long more) { return starve(nth, more), true; }},
    {"feed", feed},
    // Makes a station.
    {"serve", serve},
    // Sends a body there and back through a handle that is kept, or a new one.
    {"call", call},
    {"flip", [](Name name,
                std::size_t size) { return attempt([&] { return flips(Client(name), size); }); }},
    // Makes an object, and destroys that of the same name; or only that.
    {"make", make},
    {"unmake", [](Name name) { return attempt([&] { return things.erase(name) == 1; }); }},
    // Observes creations, and existing objects.
    {"watch", watch},
    // Waits for the notice of an object.
    {"await", awaitNotice}};

}  // namespace

int main() {
    Sated const sated;
    testsupport::obeyLines(commands, [](auto const& act) { return permitted(act); });
}
