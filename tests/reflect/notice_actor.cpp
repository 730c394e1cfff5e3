// A process that publishes objects and observes those of others, driven by lines on standard input.
// Classes and addresses are hexadecimal.
//
//   know CLASS                makes a class known; "known"
//   create NAME CLASS         makes an object; "created IOID BROKER TERMINATION"
//   destroy NAME              destroys it; "destroyed"
//   observe OBSERVER KIND CLASS   KIND: creations, existing (creations and what there is) or
//                             deletions; "observing". OBSERVER is made when needed, and writes
//                             "notice OBSERVER NAME BROKER" when it is told
//   remove OBSERVER CLASS     ends its registrations; "removed"
//   hold OBSERVER             blocks for ever when it is next told, after "holding"; "prepared"
//   sync                      "synced", behind all that was written before
#include <set>

#include "ActorSide.h"
#include "Permitted.h"
#include "Thing.h"
#include "Waiting.h"
#include "transport.h"

namespace {

using testsupport::answer;

/** Guarded by the run permission. They outlive exit. */
auto& things = *new std::map<std::string, std::unique_ptr<Thing>>;
auto& observers = *new std::map<std::string, std::unique_ptr<Watcher>>;
auto& holding = *new std::set<std::string>;

void react(std::string const& observer, std::string const& name, TreflectObject const& source) {
    answer("notice ", observer, " ", name, " ", std::hex, source.getStub_()->orbId().value());
    if (holding.count(observer) == 0)
        return;
    TreflectReleaseHandlerState const given;
    answer("holding");
    testsupport::Gate().wait(std::chrono::hours(1));
}

Watcher& observer(std::string const& name) {
    auto& observer = observers[name];
    if (!observer)
        observer = std::make_unique<Watcher>(
            name, [name](auto const& told, auto& source) { react(name, told, source); });
    return *observer;
}

void create(std::string const& name, unsigned int classId) {
    thingClass(classId);
    auto thing = std::make_unique<Thing>(name, classId);
    unsigned int const ioid = thing->getInternalOID();
    things[name] = std::move(thing);
    TreflectORB const& orb = *TreflectORB::getInstance(NSID_UNIT);
    answer("created ", std::hex, ioid, " ", orb.orbId().value(), " ", orb.termId().value());
}

void destroy(std::string const& name) {
    // Out of the map first: others may create objects while this one waits.
    std::unique_ptr<Thing> gone = std::move(things[name]);
    things.erase(name);
    gone.reset();
    answer("destroyed");
}

void observe(std::string const& name, std::string const& kind, unsigned int classId) {
    if (kind == "deletions")
        thingClass(classId).observeDeletions(&observer(name));
    else
        thingClass(classId).observeCreations(&observer(name), kind == "existing");
    answer("observing");
}

void obey(std::string const& verb, std::istringstream& words) {
    std::string name;
    std::string kind;
    unsigned int classId = 0;
    if (verb != "know")
        words >> name;
    if (verb == "observe")
        words >> kind;
    words >> std::hex >> classId;
    if (verb == "know") {
        thingClass(classId);
        answer("known");
    } else if (verb == "create") {
        create(name, classId);
    } else if (verb == "destroy") {
        destroy(name);
    } else if (verb == "observe") {
        observe(name, kind, classId);
    } else if (verb == "remove") {
        thingClass(classId).removeObserver(&observer(name));
        answer("removed");
    } else if (verb == "hold") {
        holding.insert(name);
        answer("prepared");
    } else if (verb == "sync") {
        answer("synced");
    }
}

}  // namespace

int main() {
    preCreateReflectOrb();
    testsupport::obeyLines([](std::string const& verb, std::istringstream& words) {
        permitted([&] { obey(verb, words); });
        return true;
    });
}
