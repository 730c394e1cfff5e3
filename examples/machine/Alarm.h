// A limit in percent that several classes of the machine watch.
#pragma once

#include <ipprmi.h>

/** The code with which a server object refuses a limit above 100 percent. */
constexpr unsigned int kBadLimit = 1;

struct AlarmState {
    unsigned int limit = 90;  // percent
    bool raised = false;

    REFLECTORB_STRUCT(AlarmState, limit, raised)
};

/** What the server objects keep of it. */
class AlarmLimit {
public:
    TipprmiResult<void> set(unsigned int percent) {
        if (percent > 100)
            return TipprmiFailure(kBadLimit);
        limit_ = percent;
        return {};
    }
    unsigned int get() const { return limit_; }
    AlarmState at(unsigned int percent) const { return {limit_, percent >= limit_}; }

private:
    unsigned int limit_ = AlarmState().limit;
};
