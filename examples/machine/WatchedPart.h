// The class WatchedPart: a part that raises an alarm when too much of it is in use.
#pragma once

#include "Alarm.h"
#include "Part.h"

class WatchedPartSkeleton : public TreflectSkeleton<watchedPartMeta, PartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual AlarmState getAlarm() = 0;
    virtual unsigned int getAlarmLimit() = 0;
    virtual TipprmiResult<void> setAlarmLimit(unsigned int percent) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case watched::kGetAlarm:
                return serve(watched::kClass, cc, mc, in, out, &WatchedPartSkeleton::getAlarm);
            case watched::kGetAlarmLimit:
                return serve(watched::kClass, cc, mc, in, out, &WatchedPartSkeleton::getAlarmLimit);
            case watched::kSetAlarmLimit:
                return serve(watched::kClass, cc, mc, in, out, &WatchedPartSkeleton::setAlarmLimit);
            default:
                return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

class WatchedPartClient : public PartClient {
public:
    using PartClient::PartClient;

    TipprmiResult<AlarmState> getAlarm() const {
        return treflectCall(*this, watched::kClass, watched::kGetAlarm,
                            &WatchedPartSkeleton::getAlarm);
    }
    /** Percent of the part in use from which on there is an alarm. */
    TipprmiResult<unsigned int> getAlarmLimit() const {
        return treflectCall(*this, watched::kClass, watched::kGetAlarmLimit,
                            &WatchedPartSkeleton::getAlarmLimit);
    }
    /** Refused with kBadLimit above 100. */
    TipprmiResult<void> setAlarmLimit(unsigned int percent) const {
        return treflectCall(*this, watched::kClass, watched::kSetAlarmLimit,
                            &WatchedPartSkeleton::setAlarmLimit, percent);
    }
};
