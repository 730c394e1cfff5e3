// How the program ends.
#pragma once

#include <stdexcept>
#include <string>

/** The exit codes of the program, which its man page tells. */
enum class ExitCode : int {
    kDone = 0,
    kRefused = 1,   // by the object
    kWrongUse = 2,  // of the program, or of a member
    kNotThere = 3,
    kVetoed = 4,
    kTimedOut = 5,
    kNoAccess = 6  // to the rendezvous folder, or a wrong environment
};

/** The name by which JSON tells an outcome. */
char const* nameOf(ExitCode outcome);

/** What cannot be done, and why, in words for people. */
class Failure : public std::runtime_error {
public:
    Failure(ExitCode why, std::string const& text) : std::runtime_error(text), outcome_(why) {}

    ExitCode outcome() const { return outcome_; }

private:
    ExitCode outcome_;
};

/** What a call's failure code (see TipprmiFailure) means here. `refusal`: the name of the exception
 * that the class tells for the code; may be empty. */
Failure failureOf(unsigned int code, std::string const& refusal = {});
