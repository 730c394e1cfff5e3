// A target that lives and does not answer: the real times, waited for.
#include "ReflectActor.h"
#include "RendezvousFolder.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/** A line that must come about `when` after `start`. */
void expectAt(ReflectActor& actor, steady_clock::time_point start, seconds when,
              std::string const& part) {
    EXPECT_TRUE(actor.child().waitForErrorLine(part, when + seconds(25))) << part;
    auto const passed = steady_clock::now() - start;
    EXPECT_GE(passed, when - milliseconds(500)) << part;
    EXPECT_LT(passed, when + seconds(20)) << part;
}

TEST(LongWait, callerGivesUpAfterAMinuteAndBothSidesReset) {
    testsupport::RendezvousFolder const folder;
    ReflectActor target;
    ReflectActor caller;
    target.publish("mute");
    target.ask("script 0", "script");
    caller.ask("script 3", "script");
    caller.publish("own");
    auto const start = steady_clock::now();
    caller.tell("hold mute");

    expectAt(caller, start, seconds(30), " waits now  30 seconds for response from 0x");
    expectAt(caller, start, seconds(30), "    ReflMsg output: tPayld, kRequ.(kUndef), des=");
    expectAt(caller, start, seconds(30), "    Message data: ioid=0x");
    expectAt(caller, start, seconds(60), " waits now  60 seconds for response from 0x");
    expectAt(caller, start, seconds(60), " is waiting since 1 minutes for 0x");
    expectAt(target, start, seconds(60), " received response failure message from 0x");
    expectAt(target, start, seconds(60), "    ReflMsg output: tPayld, kReFai(kReFai), des=");
    expectAt(caller, start, seconds(60), ", now triggering an abort()");
    for (ReflectActor* const actor : {&caller, &target}) {
        EXPECT_TRUE(actor->child().waitForErrorLine(" requests UNIT RESET"));
        EXPECT_EQ(actor->await("script"), "/opt/vdk/bin/QMB_FCT_logs.sh");
        EXPECT_EQ(actor->child().exitCode(), -SIGABRT);
    }
    EXPECT_TRUE(caller.child().waitForErrorLine("QMB_FCT log collection failed with status:3"));
    EXPECT_TRUE(
        target.child().waitForErrorLine("QMB_FCT log collection script executed successfully"));
}

TEST(LongWait, failsTheCallWhereNobodyIsToAbort) {
    testsupport::RendezvousFolder const folder;
    ReflectActor::Environment const lenient{{"TRANSPORT_ON_SILENCE", "fail"}};
    ReflectActor target(lenient);
    ReflectActor patient(lenient);
    ReflectActor strict;
    target.publish("mute");
    strict.ask("script 0", "script");
    auto const start = steady_clock::now();
    patient.tell("hold mute");
    strict.tell("hold mute");
    EXPECT_SOON(target.ask("holding mute", "holding") == "2");

    expectAt(patient, start, seconds(60), ", now failing the call instead of an abort");
    expectAt(target, start, seconds(60), " received response failure message from 0x");
    expectAt(target, start, seconds(60), " goes on instead of an abort");
    EXPECT_EQ(strict.child().exitCode(), -SIGABRT);
    target.tell("release mute");
    patient.publish("own");
    EXPECT_EQ(patient.ask("call mute 5", "called"), "1 5");
}

}  // namespace
