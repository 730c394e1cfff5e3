// Who a process is: from the program, from the environment, and what is refused.
#include <sys/stat.h>
#include <unistd.h>

#include "TransportActor.h"
#include "platform/transport/IdentityValues.h"

namespace transporttest {
namespace {

class IdentityTest : public testing::Test {
protected:
    testsupport::RendezvousFolder folder_;
};

TEST_F(IdentityTest, environmentTellsWhoTheProcessIs) {
    PresenceActor actor(PresenceActor::Environment{{"TRANSPORT_SLOT", "17"},
                                                   {"TRANSPORT_ACTIVE_SLOT", "2"},
                                                   {"TRANSPORT_AXU_SLOTS", "3,17,255"},
                                                   {"TRANSPORT_ACTOR", "pump"}});
    EXPECT_EQ(actor.ask("identity", "identity"), "17 2 pump 3 17 255 axu");
    EXPECT_EQ(actor.start(1).substr(0, 4), "0111");
}

TEST_F(IdentityTest, programWinsOverTheEnvironmentUntilTheFirstTermination) {
    PresenceActor actor(
        PresenceActor::Environment{{"TRANSPORT_SLOT", "nonsense"}, {"TRANSPORT_ACTOR", "pump"}});
    for (char const* command : {"slot 5", "axu 4,5", "actor valve"})
        EXPECT_TRUE(actor.does(command)) << command;
    EXPECT_EQ(actor.ask("identity", "identity"), "5 1 valve 4 5 axu");
    EXPECT_EQ(actor.start(2).substr(0, 4), "0205");
    for (char const* command : {"slot 6", "axu 6", "actor other", "directory /tmp"})
        EXPECT_FALSE(actor.does(command)) << command;
    EXPECT_TRUE(actor.does("active 2")) << "changes while the program runs";
    EXPECT_EQ(actor.ask("identity", "identity"), "5 2 valve 4 5 axu");
    EXPECT_TRUE(actor.child().waitForErrorLine("cannot be set any more"));
}

TEST_F(IdentityTest, settersRefuseNonsenseAndKeepTheDefaults) {
    PresenceActor actor;
    for (char const* command : {"slot 0", "slot 256", "slot -1", "active 0", "active 3", "axu 2",
                                "axu 3,256", "directory relative/path"})
        EXPECT_FALSE(actor.does(command)) << command;
    EXPECT_EQ(actor.ask("identity", "identity"), "1 1 transport_actor");
    EXPECT_EQ(actor.start(3).substr(0, 4), "0301");
}

TEST_F(IdentityTest, nonsenseInTheEnvironmentIsReportedAndGivesNoTerminations) {
    PresenceActor::Environment const cases[] = {
        {{"TRANSPORT_SLOT", "0"}},         {{"TRANSPORT_SLOT", "1x"}},
        {{"TRANSPORT_SLOT", "256"}},       {{"TRANSPORT_ACTIVE_SLOT", "3"}},
        {{"TRANSPORT_AXU_SLOTS", "3,,4"}}, {{"TRANSPORT_AXU_SLOTS", "2"}},
        {{"TRANSPORT_ACTOR", "a\nb"}},     {{"TRANSPORT_DIR", "relative"}},
        {{"TRANSPORT_ON_SILENCE", "?"}}};
    for (auto const& environment : cases) {
        std::string const text = environment.begin()->first + "=" + environment.begin()->second;
        PresenceActor actor(environment);
        EXPECT_EQ(actor.start(), kRefused) << text;
        EXPECT_TRUE(actor.child().waitForErrorLine("gets no terminations")) << text;
        EXPECT_EQ(actor.known(), 0u) << text;
    }
}

TEST_F(IdentityTest, folderIsMadeForItsUserAlone) {
    std::string const path = folder_.path() + "/fresh";
    PresenceActor actor(PresenceActor::Environment{{"TRANSPORT_DIR", path}});
    EXPECT_NE(actor.start(), kRefused);
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0700u);
    EXPECT_EQ(status.st_uid, geteuid());
}

TEST_F(IdentityTest, defaultFolderLiesBelowTheRuntimeDirectoryIfThatIsTheUsers) {
    setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1);
    EXPECT_EQ(Transport::defaultFolder(), folder_.path() + "/reflectorb");
    setenv("XDG_RUNTIME_DIR", "/nowhere/at/all", 1);
    std::string const fallback = Transport::defaultFolder();
    std::string const user = std::to_string(geteuid());
    EXPECT_TRUE(fallback == "/run/user/" + user + "/reflectorb" ||
                fallback == "/tmp/reflectorb-" + user)
        << fallback;
}

/** Starts an actor on `path` and expects it to be refused for `reason`. */
void expectRefused(std::string const& path, std::string const& reason) {
    PresenceActor actor(PresenceActor::Environment{{"TRANSPORT_DIR", path}});
    EXPECT_EQ(actor.start(), kRefused);
    EXPECT_TRUE(actor.child().waitForErrorLine(reason)) << reason;
}

TEST_F(IdentityTest, folderThatIsNotTheUsersAloneIsRefused) {
    std::string const& path = folder_.path();
    ASSERT_EQ(symlink(path.c_str(), (path + "/link").c_str()), 0);
    expectRefused(path + "/link", "symbolic link");
    expectRefused(path + "/link//", "symbolic link");
    std::ofstream(path + "/file") << "x";
    expectRefused(path + "/file", "no folder");
    expectRefused(path + "/a/b", "cannot make it");
    ASSERT_EQ(chmod(path.c_str(), 0750), 0);
    expectRefused(path, "mode 0750");
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a folder away";
    ASSERT_EQ(chmod(path.c_str(), 0700), 0);
    ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    expectRefused(path, "owner 65534");
}

}  // namespace
}  // namespace transporttest
