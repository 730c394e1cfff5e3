// The test's side of a child program that is driven by lines on standard input.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "ChildProgram.h"

namespace testsupport {

class ActorProgram {
public:
    using Environment = ChildProgram::Environment;
    using Command = std::vector<std::string>;

    explicit ActorProgram(Command const& command, Environment const& environment = {})
        : child_(command, {}, environment) {
        await("ready");
    }
    /** A test program by its name. */
    explicit ActorProgram(std::string const& program, Environment const& environment = {})
        : ActorProgram(programCommand(program), environment) {}

    ChildProgram& child() { return child_; }
    ChildProgram const& child() const { return child_; }
    void tell(std::string const& command) { child_.writeLine(command); }
    /** The next line that begins with `answer`, behind that word. */
    std::string await(std::string const& answer) {
        auto const line = child_.waitForLine(answer);
        EXPECT_TRUE(line) << "no answer \"" << answer << "\"";
        return line && line->size() > answer.size() ? line->substr(answer.size() + 1) : "";
    }
    std::string ask(std::string const& command, std::string const& answer) {
        tell(command);
        return await(answer);
    }
    /** Whether a command was done that tells just that. */
    bool does(std::string const& command) { return ask(command, "done") == "1"; }
    /** Has an object made: its internal id, its broker and the broker's termination. */
    struct Made {
        unsigned int ioid = 0;
        unsigned int broker = 0;
        unsigned int termination = 0;
    };
    Made make(std::string const& command, std::string const& answer) {
        std::istringstream words(ask(command, answer));
        Made made;
        words >> std::hex >> made.ioid >> made.broker >> made.termination;
        return made;
    }
    /** Ends the process in the ordinary way, which sanitizers use for their reports. */
    void finish() {
        child_.closeInput();
        EXPECT_EQ(child_.exitCode(), 0);
    }

private:
    ChildProgram child_;
};

}  // namespace testsupport
