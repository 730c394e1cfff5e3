// The test's side of the program notice_actor.
#pragma once

#include <gtest/gtest.h>

#include <sstream>

#include "BrokerActor.h"
#include "transport.h"

class NoticeActor : public BrokerActor {
public:
    struct Created {
        unsigned int ioid = 0;
        unsigned int broker = 0;
        Transport::TerminationId termination;
    };

    explicit NoticeActor(Environment const& environment = {})
        : BrokerActor(environment, testsupport::programCommand("notice_actor")) {}

    Created create(std::string const& name, std::string const& classId) {
        std::istringstream words(ask("create " + name + " " + classId, "created"));
        unsigned int termination = 0;
        Created created;
        words >> std::hex >> created.ioid >> created.broker >> termination;
        created.termination = Transport::TerminationId(termination);
        return created;
    }
    void destroy(std::string const& name) { ask("destroy " + name, "destroyed"); }
    void know(std::string const& classId) { ask("know " + classId, "known"); }
    void observe(std::string const& observer, std::string const& kind, std::string const& classId) {
        ask("observe " + observer + " " + kind + " " + classId, "observing");
    }
    /** The names that the observer has written so far, each with a blank behind it. */
    std::string told(std::string const& observer) {
        ask("sync", "synced");
        std::string names;
        for (std::string const& line : child().lines()) {
            std::istringstream words(line);
            std::string notice;
            std::string by;
            std::string name;
            words >> notice >> by >> name;
            if (notice == "notice" && by == observer)
                names += name + " ";
        }
        return names;
    }
    /** Ends the process in the ordinary way, which sanitizers use for their reports. */
    void finish() {
        child().closeInput();
        EXPECT_EQ(child().exitCode(), 0);
    }
};
