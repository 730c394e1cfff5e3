// A process with reflective objects, driven by lines on standard input:
//
//   lamp NAME [PARENT]    makes a lamp, below the object PARENT; answers "made"
//   combi NAME [PARENT]   makes a combi
//   next NAME OTHER       makes OTHER the value of the lamp's attribute Next; answers "next"
//   pings NAME            answers "pings COUNT"
//   level NAME            answers "level NUMBER"
//   entered NAME          waits for a call that is held; answers "entered"
//   release NAME          lets the calls go that are held; answers "released"
//   store NAME NUMBER     sets Level of the lamp NAME, wherever it is; "stored ok" or "stored CODE"
//   destroy NAME          destroys the object or the observer; answers "destroyed"
//   observer NAME         makes an observer, which allows all calls; answers "made"
//   answers NAME ANSWER   what its update answers: yes, no, or hang for never, after a line
//                         "hangs"; answers "will"
//   observe NAME OBJECT OPERATION KIND   has it told of calls, KIND: before or after; "observing 1"
//   unobserve NAME OBJECT OPERATION      answers "unobserved"
//   told NAME             answers "told COUNT NUMBER SOURCE": how often, the first value of the
//   last
//                         time, or "none", and the name of the object that was called
#include <map>
#include <memory>

#include "ActorSide.h"
#include "Gauge.h"

namespace {

bool hang() {
    TreflectReleaseHandlerState const released;
    testsupport::answer("hangs");
    return testsupport::Gate().wait(std::chrono::hours(1));
}

void setAnswer(Watcher& observer, std::string const& answer) {
    observer.answer = answer == "yes";
    observer.react = nullptr;
    if (answer == "hang")
        observer.react = hang;
}

std::string told(Watcher const& observer) {
    return "told " + std::to_string(observer.told) + " " +
           (observer.values.empty() ? "none" : std::to_string(observer.values[0])) + " " +
           (observer.sourceNames.empty() ? "nobody" : observer.sourceNames.back());
}

// Both under the run permission.
std::map<std::string, std::unique_ptr<LampObject>> objects;
std::map<std::string, std::unique_ptr<Watcher>> observers;

void make(std::string const& kind, std::string const& name, std::string const& parentName) {
    TreflectObject const parent{TipprmiOID(parentName, NSID_UNIT)};
    TreflectObject const* const above = parentName.empty() ? nullptr : &parent;
    if (kind == "combi")
        objects[name] = std::make_unique<CombiObject>(name, above);
    else
        objects[name] = std::make_unique<LampObject>(name, above);
}

std::string store(std::string const& name, std::string const& number) {
    TreflectObject const lamp{TipprmiOID(name, NSID_UNIT)};
    TipprmiResult<void> const stored =
        lamp.attribute("Level").store(static_cast<unsigned int>(std::stoul(number)));
    return stored ? "stored ok" : "stored " + std::to_string(stored.code());
}

std::string handleObserver(std::string const& verb, std::string const& name,
                           std::istringstream& words) {
    std::string object;
    std::string operation;
    std::string kind;
    Watcher& observer = *observers.at(name);
    words >> object;
    if (verb == "answers") {
        setAnswer(observer, object);
        return "will";
    }
    if (verb == "told")
        return told(observer);
    words >> operation >> kind;
    TreflectObject const observed{TipprmiOID(object, NSID_UNIT)};
    TreflectOperation& bound = observed.operation(operation);
    if (verb == "unobserve") {
        bound.removeObserver(&observer);
        return "unobserved";
    }
    bool const done = kind == "before" ? bound.preObserve(&observer) : bound.postObserve(&observer);
    return done ? "observing 1" : "observing 0";
}

std::string handle(std::string const& verb, std::string const& name, std::istringstream& words) {
    if (observers.count(name) != 0 && verb != "destroy") {
        TreflectHandlerState const handlerState(true);
        return handleObserver(verb, name, words);
    }
    std::string other;
    words >> other;
    if (verb == "entered" || verb == "release") {
        LampObject* object = nullptr;
        {
            TreflectHandlerState const handlerState(true);
            object = objects.at(name).get();
        }
        if (verb == "entered")
            return object->entered().wait() ? "entered" : "nobody";
        object->release();
        return "released";
    }
    TreflectHandlerState const handlerState(true);
    if (verb == "lamp" || verb == "combi") {
        make(verb, name, other);
        return "made";
    }
    if (verb == "store")
        return store(name, other);
    if (verb == "observer") {
        observers[name] = std::make_unique<Watcher>(name);
        return "made";
    }
    if (verb == "destroy") {
        objects.erase(name);
        observers.erase(name);
        return "destroyed";
    }
    LampObject& object = *objects.at(name);
    if (verb == "next") {
        object.next = TreflectObject(TipprmiOID(other, NSID_UNIT));
        return "next";
    }
    if (verb == "pings")
        return "pings " + std::to_string(object.pings());
    if (verb == "level")
        return "level " + std::to_string(object.level);
    return "unknown " + verb;
}

}  // namespace

int main() {
    testsupport::obeyLines([](std::string const& verb, std::istringstream& words) {
        std::string name;
        words >> name;
        testsupport::answer(handle(verb, name, words));
        return true;
    });
    prepareOrbForDeletion();
    objects.clear();
    observers.clear();
}
