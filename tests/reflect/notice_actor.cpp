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
//   on OBSERVER COMMAND       what it does once when it is next told; "prepared"
//   hold                      blocks without the permission for ever; "holding"
//   sync                      "synced", behind all that was written before
//   delete                    deletes all brokers; "deleted"
#include "ActorSide.h"
#include "Thing.h"
#include "Waiting.h"
#include "transport.h"

namespace {

using testsupport::answer;

/** Its commands are guarded by the run permission. */
class Actor {
public:
    void handle(std::string const& verb, std::istream& words);

private:
    void objects(std::string const& verb, std::istream& words);
    void observers(std::string const& verb, std::istream& words);
    void others(std::string const& verb);
    void create(std::string const& name, unsigned int classId);
    void observe(Watcher& observer, std::string const& kind, unsigned int classId);
    Watcher& observer(std::string const& name);
    void react(std::string const& observer, std::string const& name, TreflectObject const& source);

    std::map<std::string, std::unique_ptr<Thing>> things_;
    std::map<std::string, std::unique_ptr<Watcher>> observers_;
    std::map<std::string, std::string> prepared_;
};

void Actor::handle(std::string const& verb, std::istream& words) {
    TreflectHandlerState const handlerState(true);
    if (verb == "know" || verb == "create" || verb == "destroy")
        objects(verb, words);
    else if (verb == "observe" || verb == "remove" || verb == "on")
        observers(verb, words);
    else
        others(verb);
}

void Actor::objects(std::string const& verb, std::istream& words) {
    std::string name;
    unsigned int classId = 0;
    if (verb == "know") {
        words >> std::hex >> classId;
        thingClass(classId);
        answer("known");
        return;
    }
    words >> name >> std::hex >> classId;
    if (verb == "create") {
        create(name, classId);
    } else {
        // Out of the map first: others may create objects while this one waits.
        std::unique_ptr<Thing> gone = std::move(things_[name]);
        things_.erase(name);
        gone.reset();
        answer("destroyed");
    }
}

void Actor::create(std::string const& name, unsigned int classId) {
    thingClass(classId);
    auto thing = std::make_unique<Thing>(name, classId);
    unsigned int const ioid = thing->getInternalOID();
    things_[name] = std::move(thing);
    TreflectORB const& orb = *TreflectORB::getInstance(NSID_UNIT);
    answer("created ", std::hex, ioid, " ", orb.orbId().value(), " ", orb.termId().value());
}

void Actor::observers(std::string const& verb, std::istream& words) {
    std::string name;
    std::string kind;
    unsigned int classId = 0;
    words >> name >> std::ws;
    if (verb == "observe") {
        words >> kind >> std::hex >> classId;
        observe(observer(name), kind, classId);
        answer("observing");
    } else if (verb == "remove") {
        words >> std::hex >> classId;
        thingClass(classId).removeObserver(&observer(name));
        answer("removed");
    } else {
        observer(name);
        std::getline(words, prepared_[name]);
        answer("prepared");
    }
}

void Actor::observe(Watcher& observer, std::string const& kind, unsigned int classId) {
    TreflectMetaObject& meta = thingClass(classId);
    if (kind == "deletions")
        meta.observeDeletions(&observer);
    else
        meta.observeCreations(&observer, kind == "existing");
}

Watcher& Actor::observer(std::string const& name) {
    auto& observer = observers_[name];
    if (!observer)
        observer = std::make_unique<Watcher>(
            name, [this, name](auto const& told, auto& source) { react(name, told, source); });
    return *observer;
}

void Actor::react(std::string const& observer, std::string const& name,
                  TreflectObject const& source) {
    answer("notice ", observer, " ", name, " ", std::hex, source.getStub_()->orbId().value());
    auto const prepared = prepared_.find(observer);
    if (prepared == prepared_.end())
        return;
    std::istringstream words(prepared->second);
    prepared_.erase(prepared);
    std::string verb;
    words >> verb;
    handle(verb, words);
}

void Actor::others(std::string const& verb) {
    if (verb == "hold") {
        TreflectReleaseHandlerState const given;
        answer("holding");
        testsupport::Gate().wait(std::chrono::hours(1));
    } else if (verb == "sync") {
        answer("synced");
    } else if (verb == "delete") {
        prepareOrbForDeletion();
        answer("deleted");
    }
}

}  // namespace

int main() {
    static auto& actor = *new Actor;  // its objects outlive exit
    preCreateReflectOrb();
    testsupport::obeyLines([](std::string const& verb, std::istringstream& words) {
        actor.handle(verb, words);
        return true;
    });
}
