// A process that serves stations and calls those of others, driven by lines on standard input. An
// answer that comes from a thread of its own may stand behind those of later lines.
#include <set>

#include "ActorSide.h"
#include "AllocationCount.h"
#include "CopyCount.h"
#include "Permitted.h"
#include "Station.h"

namespace {

using station::Client;
using station::Server;
using testsupport::answer;

// ---- Objects that observers are told of ---------------------------------------------------------

constexpr unsigned int kThing = 0x57A4;
TreflectMetaClass thingMeta("Starved", kThing, {}, {});

class Thing : public TreflectSkeleton<thingMeta> {
public:
    Thing(std::string const& name, NamespaceId ns)
        : TreflectSkeleton(TipprmiOID(name, ns), nullptr, name) {
        sendCreationEvent(&thingMeta);
    }
    ~Thing() override { sendDeletionEvent(&thingMeta); }
};

class Watcher : public TreflectObserver {
public:
    explicit Watcher(NamespaceId ns) : TreflectObserver(TipprmiOID("", ns), nullptr, "") {}
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

bool make(Name const& name, int ns) {
    return attempt([&] {
        things.erase(name);
        return things[name] = std::make_unique<Thing>(name, given(ns)), true;
    });
}

bool watch(int ns) {
    return attempt([ns] {
        if (!watcher)
            watcher = new Watcher(given(ns));
        if (ns == 0)
            return thingMeta.observeCreations(watcher, true);
        return TreflectORB::getInstance(given(ns))->observeCreations(kThing, *watcher, true);
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
    {"allocations", [] { answer("allocations ", allocationCount()); }},
    {"copied", [] { answer("copied ", copiedBytes()); }},
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
    // Makes an object, in the unit or another namespace, and destroys that of the same name; or
    // only
    // that.
    {"make", make},
    {"unmake", [](Name name) { return attempt([&] { return things.erase(name) == 1; }); }},
    // Observes creations, and existing objects, likewise.
    {"watch", watch},
    // Waits for the notice of an object.
    {"await", awaitNotice}};

}  // namespace

int main() {
    Sated const sated;
    testsupport::obeyLines(commands, [](auto const& act) { return permitted(act); });
}
