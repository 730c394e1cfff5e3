// The test's side of the program notice_actor.
#pragma once

#include "ActorProgram.h"

class NoticeActor : public testsupport::ActorProgram {
public:
    NoticeActor() : ActorProgram("notice_actor") {}

    Made create(std::string const& name, std::string const& classId) {
        return make("create " + name + " " + classId, "created");
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
            std::string notice, by, name;
            words >> notice >> by >> name;
            if (notice == "notice" && by == observer)
                names += name + " ";
        }
        return names;
    }
};
