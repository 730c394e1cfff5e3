// The test's side of the program reflect_actor.
#pragma once

#include "ActorProgram.h"

class ReflectActor : public testsupport::ActorProgram {
public:
    explicit ReflectActor(Environment const& environment = {})
        : ActorProgram("reflect_actor", environment) {}

    Made publish(std::string const& probe) { return make("publish " + probe, "published"); }

    // ---- Observers of calls
    void observe(std::string const& observer, std::string const& object,
                 std::string const& operation, std::string const& kind) {
        EXPECT_EQ(
            ask("observe " + observer + " " + object + " " + operation + " " + kind, "observing"),
            "1");
    }
    std::string told(std::string const& observer) { return ask("told " + observer, "told"); }
    std::string store(std::string const& lamp, unsigned int level) {
        return ask("store " + lamp + " " + std::to_string(level), "stored");
    }

    // ---- Watches of attributes
    /** "0" when that went well. */
    std::string follow(std::string const& watch, std::string const& object,
                       std::string const& attribute) {
        return ask("follow " + watch + " " + object + " " + attribute, "following");
    }
    /** The values that it has been told of, each with a blank behind it. */
    std::string values(std::string const& watch) { return ask("values " + watch, "values"); }

    // ---- Notices of objects
    Made create(std::string const& name, std::string const& classId) {
        return make("create " + name + " " + classId, "created");
    }
    void destroy(std::string const& name) { ask("destroy " + name, "destroyed"); }
    void know(std::string const& classId) { ask("know " + classId, "known"); }
    void watch(std::string const& observer, std::string const& kind, std::string const& classId) {
        ask("watch " + observer + " " + kind + " " + classId, "watching");
    }
    /** The names that the observer has been told of so far, each with a blank behind it. */
    std::string noticed(std::string const& observer) {
        return ask("noticed " + observer, "noticed");
    }
};
