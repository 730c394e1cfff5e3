// A process with reflective objects, driven by lines on standard input; each is answered by a line.
#include <map>
#include <memory>

#include "ActorSide.h"
#include "DeskObject.h"
#include "Gauge.h"
#include "Permitted.h"

namespace {

using Name = std::string;

// All under the run permission, under which each line is obeyed.
std::map<Name, std::unique_ptr<LampObject>> objects;
std::map<Name, std::unique_ptr<Watcher>> observers;
std::unique_ptr<desk::Server> deskServer;

template <class Object>
std::string make(Name const& name, Name const& parentName) {
    TreflectObject const parent(oid(parentName));
    objects[name] = std::make_unique<Object>(name, parentName.empty() ? nullptr : &parent);
    return "made";
}

/** Made when it is needed. */
Watcher& observer(Name const& name) {
    auto& made = observers[name];
    if (!made)
        made = std::make_unique<Watcher>(name);
    return *made;
}

bool hang() {
    TreflectReleaseHandlerState const released;
    testsupport::answer("hangs");
    return testsupport::Gate().wait(std::chrono::hours(1));
}

/** How often an observer was told, the first value of the last time, and whose call it was. */
std::string told(Name const& name) {
    Watcher const& told = observer(name);
    return "told " + std::to_string(told.told) + " " +
           (told.values.empty() ? "none" : std::to_string(told.values[0])) + " " +
           (told.sourceNames.empty() ? "nobody" : told.sourceNames.back());
}

testsupport::Commands const commands{
    // Objects, below a parent if one is named.
    {"lamp", make<LampObject>},
    {"combi", make<CombiObject>},
    {"desk",
     [] {
         deskServer = std::make_unique<desk::Server>(desk::remoteId());
         return "made";
     }},
    {"destroy",
     [](Name name) {
         objects.erase(name);
         return "destroyed";
     }},
    // Makes another object the value of a lamp's attribute Next.
    {"next",
     [](Name name, Name other) {
         objects.at(name)->next = TreflectObject(oid(other));
         return "next";
     }},
    {"pings", [](Name name) { return "pings " + std::to_string(objects.at(name)->pings()); }},
    {"level", [](Name name) { return "level " + std::to_string(objects.at(name)->level); }},
    // Waits for a call that is held; and lets all go that are.
    {"entered",
     [](Name name) {
         testsupport::Gate& entered = objects.at(name)->entered();
         TreflectReleaseHandlerState const released;
         return entered.wait() ? "entered" : "nobody";
     }},
    {"release",
     [](Name name) {
         objects.at(name)->release();
         return "released";
     }},
    // Sets Level of a lamp, wherever it is; "stored ok" or "stored CODE".
    {"store",
     [](Name name, unsigned int level) {
         auto const stored = TreflectObject(oid(name)).attribute("Level").store(level);
         return "stored " + (stored ? "ok" : std::to_string(stored.code()));
     }},
    // What the update of an observer answers: yes, as from the first, no, or "hang" for never,
    // after a line "hangs".
    {"answers",
     [](Name name, Name answer) {
         observer(name).answer = answer == "yes";
         if (answer == "hang")
             observer(name).react = hang;
         return "will";
     }},
    // Has it told of calls, before or after them; "observing 1".
    {"observe",
     [](Name name, Name object, Name operation, Name kind) {
         TreflectObject const observed(oid(object));
         TreflectOperation& called = observed.operation(operation);
         bool const done = kind == "before" ? called.preObserve(&observer(name))
                                            : called.postObserve(&observer(name));
         return "observing " + std::to_string(done);
     }},
    {"unobserve",
     [](Name name, Name object, Name operation) {
         TreflectObject const observed(oid(object));
         observed.operation(operation).removeObserver(&observer(name));
         return "unobserved";
     }},
    {"told", told}};

}  // namespace

int main() {
    testsupport::obeyLines(commands, [](auto const& act) { return permitted(act); });
    prepareOrbForDeletion();
    objects.clear();
    observers.clear();
    deskServer.reset();
}
