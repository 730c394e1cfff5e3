#include "reflect/broker/ScriptRunner.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

namespace {

TEST(ScriptRunner, answersTheStatusOfTheScript) {
    EXPECT_EQ(runScript("true"), 0);
    EXPECT_EQ(WEXITSTATUS(runScript("exit 3")), 3);
    EXPECT_NE(runScript("/nonexistent/script 2>/dev/null"), 0);
}

TEST(ScriptRunner, scriptOfAThreadThatBlocksSignalsCanBeStopped) {
    sigset_t all;
    sigset_t former;
    sigset_t after;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &former);
    int const blockedByScript = runScript("grep -q '^SigBlk:[[:space:]]*0*$' /proc/self/status");
    pthread_sigmask(SIG_SETMASK, &former, &after);
    EXPECT_EQ(blockedByScript, 0);
    EXPECT_EQ(sigismember(&after, SIGTERM), 1) << "the thread itself goes on as before";
}

}  // namespace
