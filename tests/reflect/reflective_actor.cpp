// A process with reflective objects, driven by lines on standard input:
//
//   lamp NAME [PARENT]    makes a lamp, below the object PARENT; answers "made"
//   combi NAME [PARENT]   makes a combi
//   next NAME OTHER       makes OTHER the value of the lamp's attribute Next; answers "next"
//   pings NAME            answers "pings COUNT"
//   blinks NAME           answers "blinks COUNT"
//   level NAME            answers "level NUMBER"
//   entered NAME          waits for a call that is held; answers "entered"
//   release NAME          lets the calls go that are held; answers "released"
//   store NAME NUMBER     sets Level of the lamp NAME, wherever it is; "stored ok" or "stored CODE"
//   destroy NAME          destroys the object or the observer; answers "destroyed"
//   observer NAME         makes an observer, which allows all calls; answers "made"
//   answers NAME ANSWER   what its update answers: yes, no, throw, or hang for
//                         never, after a line "hangs"; answers "will"
//   observe NAME OBJECT OPERATION KIND   has it told of calls, KIND: before or after; "observing 1"
//   unobserve NAME OBJECT OPERATION      answers "unobserved"
//   told NAME             answers "told COUNT NUMBER SOURCE": how often, the first of the values
//   that
//                         it was told last, or "none", and the name of the object that was called
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "ReflectiveClasses.h"

namespace {

/** Notes what it is told. */
class Watcher : public TreflectObserver {
public:
    explicit Watcher(std::string const& name)
        : TreflectObserver(TipprmiOID(name, NSID_UNIT), nullptr, name) {}

    bool update() override {
        ++count_;
        number_ = "none";
        if (arguments().getLength() > 0) {
            TipprmiAny value = arguments()[0];
            unsigned int number = 0;
            value.extract(number);
            number_ = std::to_string(number);
        }
        source_ = getSource()->getRelName();
        if (answer == "throw")
            throw std::runtime_error("on purpose");
        if (answer == "hang") {
            TreflectReleaseHandlerState const released;
            std::cout << "hangs" << std::endl;
            testsupport::Gate().wait(std::chrono::hours(1));
        }
        return answer == "yes";
    }
    std::string told() const { return std::to_string(count_) + " " + number_ + " " + source_; }

    std::string answer = "yes";

private:
    int count_ = 0;
    std::string number_ = "none";
    std::string source_ = "nobody";
};

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
        observer.answer = object;
        return "will";
    }
    if (verb == "told")
        return "told " + observer.told();
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
    if (verb == "blinks")
        return "blinks " + std::to_string(object.blinks());
    if (verb == "level")
        return "level " + std::to_string(object.level);
    return "unknown " + verb;
}

}  // namespace

int main() {
    std::cout << "ready" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string verb;
        std::string name;
        words >> verb >> name;
        std::cout << handle(verb, name, words) << std::endl;
    }
    prepareOrbForDeletion();
    objects.clear();
    observers.clear();
}
