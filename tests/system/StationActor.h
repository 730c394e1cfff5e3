// The test's side of the program station_actor.
#pragma once

#include <chrono>
#include <memory>

#include "ActorProgram.h"
#include "RendezvousFolder.h"

class StationActor : public testsupport::ActorProgram {
public:
    explicit StationActor(Environment const& environment = {},
                          Command const& command = testsupport::programCommand("station_actor"))
        : ActorProgram(command, environment) {}

    Made publishStation(std::string const& name, std::string const& ns = "1") {
        return make("publish " + name + " " + ns, "published");
    }
    unsigned long number(std::string const& command, std::string const& answer) {
        return std::strtoul(ask(command, answer).c_str(), nullptr, 10);
    }
};

/** A test of child processes in a folder of its own. */
class StationTest : public testing::Test {
protected:
    testsupport::RendezvousFolder const folder_;
};
