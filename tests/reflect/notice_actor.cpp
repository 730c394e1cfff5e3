// A process that publishes objects and observes those of others, driven by lines on standard input;
// each is answered by a line. Classes and addresses are hexadecimal.
#include <set>

#include "ActorSide.h"
#include "Permitted.h"
#include "Thing.h"
#include "Waiting.h"
#include "Watcher.h"
#include "transport.h"

namespace {

using testsupport::answer;
using Name = std::string;

// Guarded by the run permission, under which each line is obeyed. They outlive exit.
auto& things = *new std::map<Name, std::unique_ptr<Thing>>;
auto& observers = *new std::map<Name, std::unique_ptr<Watcher>>;
auto& holding = *new std::set<Name>;

unsigned int number(Name const& classId) {
    return static_cast<unsigned int>(std::stoul(classId, nullptr, 16));
}

bool react(Name const& observer, Name const& name, TreflectObject const& source) {
    answer("notice ", observer, " ", name, " ", std::hex, source.getStub_()->orbId().value());
    if (holding.count(observer) == 0)
        return true;
    TreflectReleaseHandlerState const given;
    answer("holding");
    return testsupport::Gate().wait(std::chrono::hours(1));
}

/** Made when it is needed. */
Watcher& observer(Name const& name) {
    auto& observer = observers[name];
    if (!observer)
        observer = std::make_unique<Watcher>(
            name, [name](auto const& told, auto& source) { return react(name, told, source); });
    return *observer;
}

testsupport::Commands const commands{
    {"know",
     [](Name classId) {
         thingClass(number(classId));
         return "known";
     }},
    // "created IOID BROKER TERMINATION"
    {"create",
     [](Name name, Name classId) {
         Thing const& thing = *(things[name] = std::make_unique<Thing>(name, number(classId)));
         unsigned int const ioid = thing.getInternalOID();
         thing.come();
         TreflectORB const& orb = *TreflectORB::getInstance(NSID_UNIT);
         answer("created ", std::hex, ioid, " ", orb.orbId().value(), " ", orb.termId().value());
     }},
    {"destroy",
     [](Name name) {
         // Out of the map first: others may create objects while this one waits.
         std::unique_ptr<Thing> const gone = std::move(things[name]);
         things.erase(name);
         gone->go();
         return "destroyed";
     }},
    // Of a class: creations, existing (creations and what there is) or deletions. The observer
    // writes "notice OBSERVER NAME BROKER" when it is told.
    {"observe",
     [](Name name, Name kind, Name classId) {
         TreflectMetaObject& meta = thingClass(number(classId));
         if (kind == "deletions")
             meta.observeDeletions(&observer(name));
         else
             meta.observeCreations(&observer(name), kind == "existing");
         return "observing";
     }},
    {"remove",
     [](Name name, Name classId) {
         thingClass(number(classId)).removeObserver(&observer(name));
         return "removed";
     }},
    // An observer blocks for ever when it is next told, after "holding".
    {"hold",
     [](Name name) {
         holding.insert(name);
         return "prepared";
     }},
    // Behind all that was written before.
    {"sync", [] { return "synced"; }}};

}  // namespace

int main() {
    preCreateReflectOrb();
    testsupport::obeyLines(commands, [](auto const& act) { return permitted(act); });
}
