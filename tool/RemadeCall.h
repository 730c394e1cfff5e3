// Calls of a recording, made once more.
#pragma once

#include <chrono>
#include <map>
#include <string>

#include "Failure.h"
#include "Json.h"
#include "Objects.h"
#include "RecordedCalls.h"
#include "Values.h"

/** Values as a recording has them. */
Values valuesOf(recording::Anys const& anys);

/** What has come of a call that was made once more. A value. */
struct RemadeCall {
    std::string text;                // for people, behind the call
    Json json;                       // {"results": ...} or {"error": ...}
    std::string difference;          // from what came of it then; empty for none
    ExitCode why = ExitCode::kDone;  // it could not be made, or there is a difference
};

/** Makes calls of a recording. Without the run permission, on any thread. */
class Remaker {
public:
    /** `places`: where the objects are, those that are there. `isChecked`: whether what comes of a
     * call is compared. */
    Remaker(std::map<std::string, Place> places, std::chrono::nanoseconds patience, bool isChecked)
        : places_(std::move(places)), patience_(patience), isChecked_(isChecked) {}

    RemadeCall remake(RecordedCall const& call);

private:
    Values results(RecordedCall const& call);
    RemadeCall done(RecordedCall const& call, Values const& results) const;
    RemadeCall failed(RecordedCall const& call, Failure const& why) const;

    std::map<std::string, Place> places_;  // guarded by the run permission
    std::chrono::nanoseconds const patience_;
    bool const isChecked_;
};
