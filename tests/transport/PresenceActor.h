#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "ActorProgram.h"

/** The test's side of the program presence_actor: sends commands and reads answers. */
class PresenceActor : public testsupport::ActorProgram {
public:
    explicit PresenceActor(Environment const& environment = {},
                           Command const& command = testsupport::programCommand("presence_actor"))
        : ActorProgram(command, environment) {}

    bool set(std::string const& command) { return ask(command, "set") == "yes"; }
    /** Eight hexadecimal digits; zeros when the termination was refused. */
    std::string start(int group = 3) { return ask("start " + std::to_string(group), "started"); }
    void stop(std::string const& id) { ask("stop " + id, "stopped"); }
    /** "COUNT HASH agree 0" when all is well. */
    std::string view() { return ask("view", "view"); }
    std::size_t known() { return std::stoul(view()); }

    /** When this actor was told of `id`, in nanoseconds of the monotonic clock, each time. */
    std::vector<long long> timesTold(std::string const& what, std::string const& id) const {
        std::vector<long long> times;
        for (std::string const& line : child().lines()) {
            std::istringstream words(line);
            std::string kind;
            std::string listener;
            std::string about;
            long long time = 0;
            if (words >> kind >> listener >> about >> time && kind == what && about == id)
                times.push_back(time);
        }
        return times;
    }
    bool waitUntilTold(std::string const& what, std::string const& id) const {
        return testsupport::eventually([&] { return !timesTold(what, id).empty(); });
    }
};
