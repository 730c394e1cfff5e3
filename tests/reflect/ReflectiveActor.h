// The test's side of the program reflective_actor.
#pragma once

#include "ActorProgram.h"

class ReflectiveActor : public testsupport::ActorProgram {
public:
    ReflectiveActor() : ActorProgram("reflective_actor") {}

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
};
