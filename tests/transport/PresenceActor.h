#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
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

    /** When this actor was told of `id`, in nanoseconds of the monotonic clock. */
    std::optional<long long> told(std::string const& what, std::string const& id) const {
        for (std::string const& line : child().lines()) {
            std::istringstream words(line);
            std::string kind;
            std::string listener;
            std::string about;
            long long time = 0;
            if (words >> kind >> listener >> about >> time && kind == what && about == id)
                return time;
        }
        return std::nullopt;
    }
    bool waitUntilTold(std::string const& what, std::string const& id) const {
        return testsupport::eventually([&] { return told(what, id).has_value(); });
    }
    std::size_t timesTold(std::string const& what, std::string const& id) const {
        std::size_t count = 0;
        for (std::string const& line : child().lines())
            if (line.rfind(what, 0) == 0 && line.find(" " + id + " ", what.size() + 9) != line.npos)
                ++count;
        return count;
    }
};
