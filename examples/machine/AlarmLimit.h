// A limit in percent that several server objects of the machine watch.
#pragma once

#include "generated/machine.h"

class AlarmLimit {
public:
    TipprmiOutcome<void, watchedPart::BadLimit> set(unsigned int percent) {
        if (percent > kHighest)
            return watchedPart::BadLimit{kHighest};
        limit_ = percent;
        return {};
    }
    unsigned int get() const { return limit_; }
    watchedPart::AlarmState at(unsigned int percent) const { return {limit_, percent >= limit_}; }

private:
    static constexpr unsigned int kHighest = 100;

    unsigned int limit_ = 90;
};
