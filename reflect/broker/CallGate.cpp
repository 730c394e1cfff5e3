#include "reflect/broker/CallGate.h"

#include "oswrap/ConditionVar.h"
#include "oswrap/Immortal.h"
#include "oswrap/Lock.h"

namespace {

/** Shared by all gates and never destroyed. A leaf lock. */
OSWrap::ConditionVar& lastVisitorLeft() {
    static OSWrap::Immortal<OSWrap::ConditionVar> condition;
    return *condition;
}

}  // namespace

void CallGate::waitUntilEmpty() {
    OSWrap::ConditionVar& left = lastVisitorLeft();
    OSWrap::Lock<OSWrap::ConditionVar> const lock(left);
    while (word_.load() != kClosed)
        left.wait(OSWrap::TimeSpec::INFINITETIME);
}

void CallGate::tellLastLeft() {
    OSWrap::ConditionVar& left = lastVisitorLeft();
    OSWrap::Lock<OSWrap::ConditionVar> const lock(left);
    left.broadcast();
}
