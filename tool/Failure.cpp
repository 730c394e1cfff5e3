#include "Failure.h"

#include <ipprmi.h>

char const* nameOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::kDone:
            return "done";
        case Outcome::kRefused:
            return "refused";
        case Outcome::kWrongUse:
            return "wrong-use";
        case Outcome::kNotThere:
            return "not-there";
        case Outcome::kVetoed:
            return "vetoed";
        case Outcome::kTimedOut:
            return "timed-out";
        case Outcome::kNoAccess:
            return "no-access";
    }
    return "";
}

Failure failureOf(unsigned int code, std::string const& refusal) {
    switch (code) {
        case TipprmiFailure::kNotServed:
            return {Outcome::kNotThere, "nobody has served it"};
        case TipprmiFailure::kUnreadable:
            return {Outcome::kRefused, "the answer is not what the class describes"};
        case TipprmiFailure::kVetoed:
            return {Outcome::kVetoed, "an observer forbids it"};
        case TipprmiFailure::kMismatch:
            return {Outcome::kWrongUse, "the class describes something else"};
        case TipprmiFailure::kTimedOut:
            return {Outcome::kTimedOut, "no answer in time"};
        default:
            return {Outcome::kRefused, "refused with code " + std::to_string(code) +
                                           (refusal.empty() ? "" : ", " + refusal)};
    }
}
