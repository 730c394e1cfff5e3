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
//   destroy NAME          destroys the object; answers "destroyed"
#include <iostream>
#include <map>
#include <memory>
#include <sstream>

#include "ReflectiveClasses.h"

namespace {

std::map<std::string, std::unique_ptr<LampObject>> objects;  // under the run permission

void make(std::string const& kind, std::string const& name, std::string const& parentName) {
    TreflectObject const parent{TipprmiOID(parentName, NSID_UNIT)};
    TreflectObject const* const above = parentName.empty() ? nullptr : &parent;
    if (kind == "combi")
        objects[name] = std::make_unique<CombiObject>(name, above);
    else
        objects[name] = std::make_unique<LampObject>(name, above);
}

std::string handle(std::string const& verb, std::string const& name, std::string const& other) {
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
    if (verb == "destroy") {
        objects.erase(name);
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
        std::string other;
        words >> verb >> name >> other;
        std::cout << handle(verb, name, other) << std::endl;
    }
    prepareOrbForDeletion();
    objects.clear();
}
