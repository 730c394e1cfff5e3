#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "ActorProgram.h"

/** The test's side of the program presence_actor: sends commands and reads answers. */
class PresenceActor : public testsupport::ActorProgram {
public:
    explicit PresenceActor(Environment const& environment = {})
        : ActorProgram(testsupport::programCommand("presence_actor"), environment) {}

    bool set(std::string const& command) { return ask(command, "set") == "yes"; }
    /** Eight hexadecimal digits; zeros when the termination was refused. */
    std::string start(int group = 3) { return ask("start " + std::to_string(group), "started"); }
    void stop(std::string const& id) { ask("stop " + id, "stopped"); }
    /** "COUNT HASH agree 0" when all is well. */
    std::string view() { return ask("view", "view"); }
    std::size_t known() { return std::stoul(view()); }

    std::size_t timesTold(std::string const& what, std::string const& id) const {
        std::size_t times = 0;
        for (std::string const& line : child().lines())
            times += line.rfind(what + " ", 0) == 0 && line.substr(what.size() + 10) == id;
        return times;
    }
    bool waitUntilTold(std::string const& what, std::string const& id) const {
        return testsupport::eventually([&] { return timesTold(what, id) != 0; });
    }
};
