// The test's side of the program broker_actor.
#pragma once

#include "ActorProgram.h"

class BrokerActor : public testsupport::ActorProgram {
public:
    explicit BrokerActor(Environment const& environment = {})
        : ActorProgram("broker_actor", environment) {}

    Made publish(std::string const& name) { return make("publish " + name, "published"); }
};
