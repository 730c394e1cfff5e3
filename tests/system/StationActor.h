// The test's side of the program station_actor.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "RendezvousFolder.h"
#include "TestPrograms.h"
#include "tests/reflect/BrokerActor.h"

class StationActor : public BrokerActor {
public:
    struct Published {
        unsigned int ioid = 0;
        unsigned int broker = 0;
        unsigned int termination = 0;
    };

    explicit StationActor(
        Environment const& environment = {},
        std::vector<std::string> const& command = testsupport::programCommand("station_actor"))
        : BrokerActor(environment, command) {}

    Published publishStation(std::string const& name, std::string const& ns = "1") {
        std::istringstream words(ask("publish " + name + " " + ns, "published"));
        Published published;
        words >> std::hex >> published.ioid >> published.broker >> published.termination;
        return published;
    }
    unsigned long number(std::string const& command, std::string const& answer) {
        return std::strtoul(ask(command, answer).c_str(), nullptr, 10);
    }
    /** Ends the process in the ordinary way, which sanitizers use for their reports. */
    void finish() {
        child().closeInput();
        EXPECT_EQ(child().exitCode(), 0);
    }
};

/** A test of child processes in a folder of its own. */
class StationTest : public testing::Test {
protected:
    testsupport::RendezvousFolder const folder_;
};
