// What calls cost once they are under way, and what a process costs that makes none.
#include <time.h>

#include "StationActor.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

class SteadyStateTest : public StationTest {
protected:
    SteadyStateTest() {
        server_.publishStation("lamp");
        client_.publishStation("own");
        EXPECT_TRUE(client_.does("keep lamp"));
    }
    ~SteadyStateTest() override {
        client_.finish();
        server_.finish();
    }
    void callOften(unsigned int count) {
        client_.tell("useoften lamp " + std::to_string(count));
        EXPECT_EQ(client_.await("failed"), "0");
    }
    /** Processor time of a whole process, asked without waking it. */
    static nanoseconds processorTime(StationActor& actor) {
        clockid_t clock{};
        timespec time{};
        if (clock_getcpuclockid(actor.child().pid(), &clock) != 0 ||
            clock_gettime(clock, &time) != 0)
            ADD_FAILURE() << "no clock of process " << actor.child().pid();
        return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
    }

    StationActor server_;
    StationActor client_;
};

TEST_F(SteadyStateTest, callsAllocateNothing) {
    constexpr unsigned long kCalls = 10'000;
    // Beside the calls: the commands, the thread that makes the calls, and now and then a further
    // worker, with the 64 messages that each thread lays by.
    constexpr unsigned long kBeside = 500;
    callOften(2000);
    StationActor* const actors[]{&client_, &server_};
    unsigned long before[2];
    for (int i = 0; i < 2; ++i)
        before[i] = actors[i]->number("allocations", "allocations");
    ASSERT_GT(before[0], 0u) << "they are counted";
    callOften(kCalls);
    for (int i = 0; i < 2; ++i) {
        unsigned long const made = actors[i]->number("allocations", "allocations") - before[i];
        EXPECT_LT(made, kBeside) << (i == 0 ? "client" : "server") << ", in " << kCalls << " calls";
    }
}

TEST_F(SteadyStateTest, aLargeTextIsCopiedOnceOnEachSideAndDirectionBesideTheRings) {
    constexpr unsigned long kText = 64ul * 1024;
    // Arguments and results between message and variable, and between message and ring; and the
    // copy that the function that is served makes for itself, as does the caller to compare.
    constexpr unsigned long kCopies = 2 + 2 + 1;
    std::string const call = "call lamp " + std::to_string(kText);
    ASSERT_TRUE(client_.does(call)) << "the rings grow";
    StationActor* const actors[]{&client_, &server_};
    unsigned long before[2];
    for (int i = 0; i < 2; ++i)
        before[i] = actors[i]->number("copied", "copied");
    ASSERT_TRUE(client_.does(call));
    for (int i = 0; i < 2; ++i) {
        unsigned long const copied = actors[i]->number("copied", "copied") - before[i];
        EXPECT_EQ((copied + kText / 2) / kText, kCopies) << (i == 0 ? "client" : "server");
    }
}

TEST_F(SteadyStateTest, idleProcessUsesNoProcessorTime) {
    callOften(2000);
    std::this_thread::sleep_for(milliseconds(2000));
    nanoseconds const client = processorTime(client_);
    nanoseconds const server = processorTime(server_);
    EXPECT_GT(client, milliseconds(1)) << "the clock runs";
    EXPECT_GT(server, milliseconds(1));
    std::this_thread::sleep_for(milliseconds(3000));
    EXPECT_LT(processorTime(client_) - client, milliseconds(2));
    EXPECT_LT(processorTime(server_) - server, milliseconds(2));
}

}  // namespace
