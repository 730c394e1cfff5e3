// The test's side of the program broker_actor.
#pragma once

#include <string>
#include <vector>

#include "ChildProgram.h"
#include "TestPrograms.h"

class BrokerActor {
public:
    using Environment = testsupport::ChildProgram::Environment;

    explicit BrokerActor(
        Environment const& environment = {},
        std::vector<std::string> const& command = testsupport::programCommand("broker_actor"))
        : child_(command, {}, environment) {
        child_.waitForLine("ready");
    }

    testsupport::ChildProgram& child() { return child_; }
    void tell(std::string const& command) { child_.writeLine(command); }
    /** The next line that begins with `answer`, behind that word. */
    std::string await(std::string const& answer) {
        std::string const line = child_.waitForLine(answer).value_or(answer + " did not come");
        return line.size() > answer.size() ? line.substr(answer.size() + 1) : "";
    }
    std::string ask(std::string const& command, std::string const& answer) {
        tell(command);
        return await(answer);
    }
    void publish(std::string const& name) { ask("publish " + name, "published"); }

private:
    testsupport::ChildProgram child_;
};
