// The child programs of the tests are a tool that other tests trust.

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "ChildProgram.h"
#include "RendezvousFolder.h"

using testsupport::ChildProgram;
using testsupport::RendezvousFolder;
using Command = std::vector<std::string>;

TEST(ChildProgram, talksThroughItsInputAndOutputs) {
    ChildProgram child(Command{"/bin/sh", "-c"},
                       {"echo $WORD; read line; echo \"got $line\"; echo bad >&2; exit 7"},
                       {{"WORD", "hello"}});
    EXPECT_EQ(child.waitForLine("hello"), "hello");
    EXPECT_TRUE(child.writeLine("abc"));
    EXPECT_EQ(child.waitForLine("got"), "got abc");
    EXPECT_EQ(child.waitForErrorLine(""), "bad");
    EXPECT_EQ(child.exitCode(), 7);
    EXPECT_EQ(child.waitForLine("hello"), std::nullopt);
    EXPECT_FALSE(child.writeLine("nobody reads"));
}

TEST(ChildProgram, canBeKilledAndIsNotWaitedForInVain) {
    ChildProgram child(Command{"/bin/cat"});
    EXPECT_EQ(child.exitCode(std::chrono::milliseconds(1)), -1000);
    child.kill();
    EXPECT_EQ(child.exitCode(), -SIGKILL);
    ChildProgram missing(Command{"/no/such/program"});
    EXPECT_EQ(missing.exitCode(), 127) << ::testing::PrintToString(missing.errorLines());
}

TEST(ChildProgram, isNotStuckOnMuchOutput) {
    ChildProgram child(Command{"/bin/sh", "-c"},
                       {"i=0; while [ $i -lt 20000 ]; do echo line $i; i=$((i+1)); done"});
    EXPECT_EQ(child.exitCode(), 0);
    ASSERT_EQ(child.lines().size(), 20'000u);
    EXPECT_EQ(child.lines().back(), "line 19999");
}

TEST(RendezvousFolder, isPrivateAndRemovedAtItsEnd) {
    std::string path;
    setenv("TRANSPORT_DIR", "/former", 1);
    {
        RendezvousFolder const folder;
        path = folder.path();
        EXPECT_EQ(std::getenv("TRANSPORT_DIR"), path);
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms::owner_all);
        std::ofstream(path + "/file") << "contents";
    }
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_STREQ(std::getenv("TRANSPORT_DIR"), "/former");
}
