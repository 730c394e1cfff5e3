#include "Failure.h"

#include <ipprmi.h>

#include <iterator>

char const* nameOf(ExitCode outcome) {
    constexpr char const* kNames[] = {"done",   "refused",   "wrong-use", "not-there",
                                      "vetoed", "timed-out", "no-access"};
    static_assert(std::size(kNames) == static_cast<std::size_t>(ExitCode::kNoAccess) + 1);
    return kNames[static_cast<std::size_t>(outcome)];
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
