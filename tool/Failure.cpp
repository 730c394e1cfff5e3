#include "Failure.h"

#include <ipprmi.h>

char const* nameOf(ExitCode outcome) {
    switch (outcome) {
        case ExitCode::kDone:
            return "done";
        case ExitCode::kRefused:
            return "refused";
        case ExitCode::kWrongUse:
            return "wrong-use";
        case ExitCode::kNotThere:
            return "not-there";
        case ExitCode::kVetoed:
            return "vetoed";
        case ExitCode::kTimedOut:
            return "timed-out";
        case ExitCode::kNoAccess:
            return "no-access";
    }
    return "";
}

Failure failureOf(unsigned int code, std::string const& refusal) {
    switch (code) {
        case TipprmiFailure::kNotServed:
            return {ExitCode::kNotThere, "nobody has served it"};
        case TipprmiFailure::kUnreadable:
            return {ExitCode::kRefused, "the answer is not what the class describes"};
        case TipprmiFailure::kVetoed:
            return {ExitCode::kVetoed, "an observer forbids it"};
        case TipprmiFailure::kMismatch:
            return {ExitCode::kWrongUse, "the class describes something else"};
        case TipprmiFailure::kTimedOut:
            return {ExitCode::kTimedOut, "no answer in time"};
        default:
            return {ExitCode::kRefused, "refused with code " + std::to_string(code) +
                                            (refusal.empty() ? "" : ", " + refusal)};
    }
}
