// A process with reflective objects, driven by lines on standard input; each is answered by a line:
//
//   lamp NAME [PARENT]    makes a lamp, below the object PARENT; "made"
//   combi NAME [PARENT]   makes a combi; "made"
//   next NAME OTHER       makes OTHER the value of the lamp's attribute Next; "next"
//   pings NAME            "pings COUNT"
//   level NAME            "level NUMBER"
//   entered NAME          waits for a call that is held; "entered"
//   release NAME          lets the calls go that are held; "released"
//   store NAME NUMBER     sets Level of the lamp NAME, wherever it is; "stored ok" or "stored CODE"
//   destroy NAME          destroys the object; "destroyed"
//   observer NAME         makes an observer, which allows all calls; "made"
//   answers NAME ANSWER   what its update answers: yes, no, or hang for never, after a line
//                         "hangs"; "will"
//   observe NAME OBJECT OPERATION KIND   has it told of calls, KIND: before or after; "observing 1"
//   unobserve NAME OBJECT OPERATION      "unobserved"
//   told NAME             "told COUNT NUMBER SOURCE": how often, the first value of the last time,
//                         or "none", and the name of the object that was called
#include <map>
#include <memory>

#include "ActorSide.h"
#include "Gauge.h"
#include "Permitted.h"

namespace {

// All under the run permission.
std::map<std::string, std::unique_ptr<LampObject>> objects;
std::map<std::string, std::unique_ptr<Watcher>> observers;

std::string word(std::istream& words) {
    std::string next;
    words >> next;
    return next;
}

template <class Object>
std::string make(std::string const& name, std::istream& words) {
    std::string const parentName = word(words);
    TreflectObject const parent(oid(parentName));
    objects[name] = std::make_unique<Object>(name, parentName.empty() ? nullptr : &parent);
    return "made";
}

std::string awaitEntry(std::string const& name, std::istream&) {
    testsupport::Gate& entered = objects.at(name)->entered();
    TreflectReleaseHandlerState const released;
    return entered.wait() ? "entered" : "nobody";
}

std::string store(std::string const& name, std::istream& words) {
    unsigned int level = 0;
    words >> level;
    auto const stored = TreflectObject(oid(name)).attribute("Level").store(level);
    return stored ? "stored ok" : "stored " + std::to_string(stored.code());
}

bool hang() {
    TreflectReleaseHandlerState const released;
    testsupport::answer("hangs");
    return testsupport::Gate().wait(std::chrono::hours(1));
}

std::string setAnswer(std::string const& name, std::istream& words) {
    std::string const answer = word(words);
    observers.at(name)->answer = answer == "yes";
    if (answer == "hang")
        observers.at(name)->react = hang;
    return "will";
}

std::string observe(std::string const& name, std::istream& words) {
    TreflectObject const observed(oid(word(words)));
    TreflectOperation& operation = observed.operation(word(words));
    Watcher* const observer = observers.at(name).get();
    bool const before = word(words) == "before";
    bool const done = before ? operation.preObserve(observer) : operation.postObserve(observer);
    return "observing " + std::to_string(done);
}

std::string unobserve(std::string const& name, std::istream& words) {
    TreflectObject const observed(oid(word(words)));
    observed.operation(word(words)).removeObserver(observers.at(name).get());
    return "unobserved";
}

std::string told(std::string const& name, std::istream&) {
    Watcher const& observer = *observers.at(name);
    return "told " + std::to_string(observer.told) + " " +
           (observer.values.empty() ? "none" : std::to_string(observer.values[0])) + " " +
           (observer.sourceNames.empty() ? "nobody" : observer.sourceNames.back());
}

std::string obey(std::string const& verb, std::string const& name, std::istream& words) {
    static std::map<std::string, std::string (*)(std::string const&, std::istream&)> const others{
        {"lamp", make<LampObject>}, {"combi", make<CombiObject>},
        {"entered", awaitEntry},    {"store", store},
        {"answers", setAnswer},     {"observe", observe},
        {"unobserve", unobserve},   {"told", told}};
    if (auto const other = others.find(verb); other != others.end())
        return other->second(name, words);
    if (verb == "observer") {
        observers[name] = std::make_unique<Watcher>(name);
        return "made";
    }
    if (verb == "destroy") {
        objects.erase(name);
        return "destroyed";
    }
    LampObject& object = *objects.at(name);
    if (verb == "pings")
        return "pings " + std::to_string(object.pings());
    if (verb == "level")
        return "level " + std::to_string(object.level);
    if (verb == "release") {
        object.release();
        return "released";
    }
    object.next = TreflectObject(oid(word(words)));
    return "next";
}

}  // namespace

int main() {
    testsupport::obeyLines([](std::string const& verb, std::istringstream& words) {
        std::string const name = word(words);
        testsupport::answer(permitted([&] { return obey(verb, name, words); }));
        return true;
    });
    prepareOrbForDeletion();
    objects.clear();
    observers.clear();
}
