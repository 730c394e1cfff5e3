// What other processes of the same user, broken or hostile, do to the rendezvous folder.
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <climits>
#include <functional>

#include "OddDescriptors.h"
#include "Slowness.h"
#include "TransportActor.h"
#include "platform/transport/local/EntryFolder.h"

namespace transporttest {
namespace {

using testsupport::eventually;
using testsupport::kSlow;
using Transport::Descriptor;
namespace fs = std::filesystem;

class FolderTest : public ActorsTest {
protected:
    std::size_t countEntries() const {
        fs::directory_iterator const all(folder_.path());
        return static_cast<std::size_t>(std::count_if(
            begin(all), end(all), [](auto const& entry) { return entry.is_socket(); }));
    }
    /** A socket that listens under a name in the folder. */
    Descriptor listenAt(std::string const& name) const {
        Descriptor listening = testsupport::socketAt(inFolder(name));
        EXPECT_EQ(listen(listening.get(), 10), 0);
        return listening;
    }
};

// ---- The file with the locks ----

struct Damage {
    char const* name;
    void (*damage)(std::string const& shared);
};
std::ostream& operator<<(std::ostream& out, Damage const& way) {
    return out << way.name;
}

/** What is to take the file's place is made beside it. */
std::string beside(std::string const& shared) {
    return shared + ".beside";
}
/** Who saw the file missing in between would make a new one. */
void exchange(std::string const& shared) {
    ASSERT_EQ(
        renameat2(AT_FDCWD, beside(shared).c_str(), AT_FDCWD, shared.c_str(), RENAME_EXCHANGE), 0);
}
void replace(std::string const& shared) {
    exchange(shared);
    fs::remove(beside(shared));
}

Damage const kDamages[] = {
    {"removed", [](std::string const& shared) { fs::remove(shared); }},
    {"copied",
     [](std::string const& shared) {
         fs::copy_file(shared, beside(shared));
         fs::rename(beside(shared), shared);
     }},
    {"linked",
     [](std::string const& shared) {
         fs::create_symlink(beside(shared), beside(shared));
         exchange(shared);
     }},
    {"pipe",
     [](std::string const& shared) {
         ASSERT_EQ(mkfifo(beside(shared).c_str(), 0600), 0);
         replace(shared);
     }},
    {"folder",
     [](std::string const& shared) {
         fs::create_directory(beside(shared));
         replace(shared);
     }},
    {"inaccessible",
     [](std::string const& shared) {
         std::ofstream const empty(beside(shared));
         ASSERT_EQ(chmod(beside(shared).c_str(), 0), 0);
         replace(shared);
     }},
    {"emptied", [](std::string const& shared) { fs::resize_file(shared, 0); }},
    {"cut", [](std::string const& shared) { fs::resize_file(shared, 3); }},
    {"overwritten", [](std::string const& shared) {
         std::ofstream(shared, std::ios::in | std::ios::binary) << std::string(8, '\xFF');
     }}};

class DamagedFileTest : public FolderTest, public testing::WithParamInterface<Damage> {
protected:
    Peer& startPeer() {
        peers_.push_back(std::make_unique<Peer>());
        return *peers_.back();
    }
    bool allKnowAll(Peer const* exceptFor = nullptr) {
        return std::all_of(peers_.begin(), peers_.end(), [&](auto const& peer) {
            return &*peer == exceptFor || eventually([&] { return peer->knowsAll(peers_.size()); });
        });
    }

    std::vector<std::unique_ptr<Peer>> peers_;
};

TEST_P(DamagedFileTest, nobodyIsBuriedAndAllMoveOverAlsoWhoIsStopped) {
    for (int i = 0; i < 4; ++i)
        startPeer();
    ASSERT_TRUE(allKnowAll());
    Peer& stopped = *peers_[1];
    Peer& victim = *peers_[2];
    ASSERT_TRUE(stopped.child().stopWholly());
    GetParam().damage(shared());
    Peer& newcomer = startPeer();
    EXPECT_TRUE(allKnowAll(&stopped)) << "the newcomer sees the stopped one, too";
    EXPECT_TRUE(newcomer.reaches(peers_[0]->id()));
    EXPECT_TRUE(peers_[3]->reaches(newcomer.id()));
    stopped.child().signal(SIGCONT);
    EXPECT_TRUE(allKnowAll());
    EXPECT_TRUE(stopped.reaches(newcomer.id()));
    EXPECT_TRUE(newcomer.reaches(stopped.id()));
    EXPECT_EQ(countEntries(), peers_.size());
    std::set<Transport::TerminationId> ids;
    for (auto const& peer : peers_)
        ids.insert(peer->id());
    EXPECT_EQ(ids.size(), peers_.size());
    victim.child().kill();
    for (auto const& peer : peers_)
        EXPECT_TRUE(&*peer == &victim || eventually([&] { return peer->met() == "4 1"; }));
}

INSTANTIATE_TEST_SUITE_P(Ways, DamagedFileTest, testing::ValuesIn(kDamages),
                         [](auto const& way) { return way.param.name; });

TEST_F(DamagedFileTest, replacedAgainAndAgainAndPutBackItIsFoundByAll) {
    for (int i = 0; i < 3; ++i)
        startPeer();
    ASSERT_TRUE(allKnowAll());
    for (int round = 0; round < 3; ++round) {
        fs::rename(shared(), shared() + ".away");
        startPeer();
        fs::rename(shared() + ".away", shared());
        startPeer();
        fs::remove(shared());
        startPeer();
        ASSERT_TRUE(allKnowAll()) << round;
        EXPECT_TRUE(peers_.back()->reaches(peers_.front()->id()));
    }
}

// Who comes makes it longer when he opens it; so does who announces something and finds it empty.
TEST_F(FolderTest, whoLeavesMendsItWhenItHasBeenCutSoThatAllHearOfIt) {
    PresenceActor leaving;
    PresenceActor staying;
    std::string const id = leaving.start();
    staying.start();
    ASSERT_SOON(leaving.known() == 2 && staying.known() == 2);
    fs::resize_file(shared(), 0);
    EXPECT_TRUE(leaving.does("stop " + id));
    EXPECT_TRUE(staying.waitUntilTold("departed", id));
    EXPECT_EQ(fs::file_size(shared()), 4096u);
}

TEST_F(FolderTest, whenManyNoticeAtOnceThatItHasGoneAllFindTheSameNewOne) {
    addActors(6);
    for (unsigned round = 1; round <= (kSlow ? 2 : 4); ++round) {
        ASSERT_NO_FATAL_FAILURE(churn(4, 8));
        ASSERT_TRUE(allAgree(actors_.size() * 4 * round)) << round << ": " << actors_[0]->view();
        fs::remove(shared());
    }
}

TEST_F(FolderTest, withAFullDiskAStartIsRefusedWithOneLine) {
    for (int round = 0; round < 2; ++round) {  // the file absent, then there
        PresenceActor poor;
        if (!poor.does("withoutRoom"))
            GTEST_SKIP() << "the kernel or the emulator cannot filter system calls";
        EXPECT_EQ(poor.start(), kRefused);
        EXPECT_EQ(poor.start(), kRefused);
        poor.finish();
        std::size_t lines = 0;
        for (std::string const& line : poor.child().errorLines())
            lines += line.find("No space left") != line.npos;
        EXPECT_EQ(lines, 2u) << "one for each start";
        EXPECT_LE(poor.child().errorLines().size(), 4u);
        EXPECT_NE(PresenceActor().start(), kRefused);
    }
}

/** Holds locks of the shared file, as any process of the user may. */
class LockHolder {
public:
    LockHolder(std::string const& shared, off_t from, off_t count)
        : file_(::open(shared.c_str(), O_RDWR | O_CLOEXEC)) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_start = from;
        lock.l_len = count;
        EXPECT_EQ(fcntl(file_.get(), F_SETLK, &lock), 0);
    }

private:
    Descriptor const file_;
};

TEST_F(FolderTest, heldLocksGiveAClearErrorAtOnceAndStopNobodyElse) {
    PresenceActor first;
    std::string const before = first.start();
    PresenceActor second;
    auto const begin = std::chrono::steady_clock::now();
    {
        LockHolder const counter(shared(), 8, 1);
        EXPECT_NE(second.start(), kRefused);
        EXPECT_TRUE(second.child().waitForErrorLine("Process " + std::to_string(getpid())));
        EXPECT_TRUE(first.waitUntilTold("arrived", before));
    }
    {
        LockHolder const names(shared(), 0x1010003, 0x10000);
        EXPECT_EQ(second.start(), kRefused);
        EXPECT_TRUE(second.child().waitForErrorLine("No name id is left"));
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(kSlow ? 10 : 2));
        fs::remove(shared());
        EXPECT_NE(second.start(), kRefused) << "locks of a file that is not there bind nobody";
    }
    EXPECT_SOON(first.known() == 3 && second.known() == 3);
}

/** As the layout of the file has it. */
off_t lockOf(Transport::TerminationId id) {
    return 0x1000000 + id.slotId() * 0x10000 + id.nameId();
}

/** Whether the disk notes when a file was made: by that the elder is known. */
bool notesBirths(std::string const& file) {
    struct statx status;
    return ::statx(AT_FDCWD, file.c_str(), 0, STATX_BTIME, &status) == 0 &&
           (status.stx_mask & STATX_BTIME) != 0;
}

/** A new shared file in which a lock is held already when others see it: who has noticed it takes
 * his own there. */
class ReplacedLockTest : public FolderTest {
protected:
    std::unique_ptr<LockHolder> replaceSharedFile(off_t lock) {
        std::string const coming = folder_.path() + "-coming";
        std::ofstream(coming) << std::string(4096, '\0');
        auto holder = std::make_unique<LockHolder>(coming, lock, 1);
        fs::rename(coming, shared());
        return holder;
    }
};

TEST_F(ReplacedLockTest, whoseNameIsHeldInTheNewFileIsKnownByItsSocket) {
    Peer old;
    auto holder = replaceSharedFile(0x1010001);
    Descriptor const sameName = listenAt("f0010001.group240.slot1.pid1.x");
    Peer newcomer;
    EXPECT_TRUE(old.child().waitForErrorLine("holds the name id"));
    EXPECT_SOON(old.knowsAll(2) && newcomer.knowsAll(2));
    EXPECT_TRUE(old.reaches(newcomer.id())) << "the newcomer believes its Hello";
    Peer another;
    EXPECT_TRUE(another.reaches(old.id()));
    holder.reset();
    Peer last;
    for (Peer* peer : {&old, &newcomer, &another, &last})
        EXPECT_SOON(peer->knowsAll(4));
}

TEST_F(ReplacedLockTest, whoTakesTheNameOfALivingOneInANewFileDrivesItOutNowhere) {
    Peer old;
    Peer friendly;
    ASSERT_SOON(old.knowsAll(2) && friendly.knowsAll(2));
    auto const holder = replaceSharedFile(lockOf(old.id()));
    std::vector<Descriptor> thieves;  // among many one is found before their victim
    for (char const* name : {".a", ".b", ".c", ".d", ".e", ".f"})
        thieves.push_back(
            listenAt(hex(old.id()) + ".group3.slot1.pid" + std::to_string(getpid()) + name));
    Peer newcomer;
    EXPECT_SOON(old.knowsAll(3) && friendly.knowsAll(3) && newcomer.knowsAll(3));
    if (notesBirths(folder_.path())) {
        EXPECT_TRUE(newcomer.reaches(old.id())) << "it was there before the thieves and the file";
    }
    EXPECT_TRUE(friendly.reaches(old.id()));
    EXPECT_TRUE(old.reaches(friendly.id()));
    EXPECT_TRUE(friendly.knowsAll(3));
}

TEST_F(ReplacedLockTest, newcomersKnowWhoHasNotFollowedYetFromThoseWhoImitateHim) {
    if (!notesBirths(folder_.path()))
        GTEST_SKIP() << "the disk does not note when a file was made";
    Descriptor const elder = listenAt("elder");
    Peer old;
    Peer friendly;  // takes longer to start than disks need to tell one time from the next
    ASSERT_SOON(old.knowsAll(2) && friendly.knowsAll(2));
    ASSERT_TRUE(old.child().stopWholly());
    std::string const ofThis = ".group3.slot1.pid" + std::to_string(getpid());
    fs::rename(inFolder("elder"), inFolder(hex(friendly.id()) + ofThis + ".elder"));
    fs::remove(shared());
    Descriptor const imitator = listenAt(hex(old.id()) + ofThis + ".imitator");
    ASSERT_TRUE(friendly.child().waitForErrorLine("has moved over")) << "it has its lock";
    Peer newcomer;
    EXPECT_SOON(newcomer.knowsAll(3));
    EXPECT_TRUE(newcomer.reaches(friendly.id()));
    old.child().signal(SIGCONT);
    EXPECT_TRUE(newcomer.reaches(old.id()));
    EXPECT_TRUE(newcomer.knowsAll(3)) << "nobody has taken its place";
}

TEST_F(ReplacedLockTest, whoseNameIsHeldIsNotBuriedWhileALinkHidesHim) {
    PresenceActor hidden;
    PresenceActor watcher;
    std::string const id = hidden.start();
    watcher.start();
    PresenceActor other;
    std::string const ended = other.start();
    ASSERT_SOON(watcher.known() == 3);
    auto const holder = replaceSharedFile(
        lockOf(Transport::TerminationId(static_cast<unsigned>(std::stoul(id, nullptr, 16)))));
    ASSERT_TRUE(watcher.child().waitForErrorLine("has moved over"));
    fs::path const entry = fileOf(id);
    fs::create_symlink("nothing", beside(entry));
    exchange(entry);
    EXPECT_TRUE(watcher.does("suspect " + id));
    other.child().kill();
    EXPECT_TRUE(watcher.waitUntilTold("departed", ended)) << "the suspect was looked at before";
    EXPECT_EQ(watcher.known(), 2u);
    replace(entry);
    PresenceActor newcomer;
    newcomer.start();
    EXPECT_SOON(watcher.known() == 3 && newcomer.known() == 3 && hidden.known() == 3);
}

TEST_F(ReplacedLockTest, whoseNameIsHeldInTheNewFileIsHeardOnceItsEntryIsSeen) {
    Peer peer;
    PresenceActor early;
    early.start();
    ASSERT_SOON(peer.knowsAll(2) && early.known() == 2);
    ASSERT_TRUE(peer.child().stopWholly()) << "it has the lock in no file that the peer sees";
    fs::remove(shared());
    std::string const seat = early.ask("seat 3", "id");
    auto const holder = replaceSharedFile(
        lockOf(Transport::TerminationId(static_cast<unsigned>(std::stoul(seat, nullptr, 16)))));
    early.tell("greet " + seat + " " + hex(peer.id()));
    peer.child().signal(SIGCONT);
    EXPECT_EQ(early.await("done"), "1");
    EXPECT_SOON(peer.knowsAll(3));
}

TEST_F(FolderTest, whoHasTakenAnAddressKeepsItWhateverBecomesOfTheFile) {
    PresenceActor model;
    std::string const first = model.start();
    std::string visible = fileOf(first).filename();
    model.does("stop " + first);
    PresenceActor slow;
    std::string const id = slow.ask("seat 3", "id");
    ASSERT_EQ(id.substr(4), "0002");
    auto const replace = [&](std::uint32_t lastNameId) {
        std::string content(4096, '\0');
        content.replace(4, sizeof lastNameId, reinterpret_cast<char const*>(&lastNameId),
                        sizeof lastNameId);
        fs::remove(shared());
        std::ofstream(shared()) << content;
    };
    replace(1);
    Peer newcomer;
    EXPECT_EQ(newcomer.id().nameId(), 3) << "2 is next";
    replace(3);
    LockHolder const thief(shared(), 0x1010002, 1);
    visible.replace(0, id.size(), id);
    std::string const pid = std::to_string(model.child().pid());
    visible.replace(visible.find(pid), pid.size(), std::to_string(slow.child().pid()));
    fs::create_directory(inFolder(visible));
    EXPECT_TRUE(slow.does("show " + id));
    EXPECT_SOON(slow.known() == 2 && newcomer.knowsAll(2));
    EXPECT_NE(PresenceActor().start(), kRefused);
}

TEST_F(FolderTest, whoSaysHelloBeforeItsEntryIsSeenIsHeardOnceItIs) {
    Peer peer;
    PresenceActor early;
    early.start();
    ASSERT_SOON(early.known() == 2);
    EXPECT_TRUE(early.does("greet " + early.ask("seat 3", "id") + " " + hex(peer.id())));
    EXPECT_SOON(peer.knowsAll(3));
}

/** Has the kernel wake those who wait for the first word of a file when another word is raised, of
 * which they know nothing. How many. */
long leadAstray(std::string const& shared) {
    static std::uint32_t other = 0;
    Descriptor const file(::open(shared.c_str(), O_RDWR | O_CLOEXEC));
    void* const word = mmap(nullptr, sizeof other, PROT_READ, MAP_SHARED, file.get(), 0);
    long const led = syscall(SYS_futex, word, FUTEX_REQUEUE, 0, INT_MAX, &other, 0);
    munmap(word, sizeof other);
    return led;
}

TEST_F(FolderTest, whoIsNotToldOfNewcomersFindsThemAllTheSame) {
    PresenceActor deaf;
    deaf.start();
    ASSERT_TRUE(eventually([&] { return leadAstray(shared()) == 1; }));
    EXPECT_TRUE(deaf.waitUntilTold("arrived", PresenceActor().start()));
}

TEST_F(FolderTest, whereMemoryRunsOutAStartOrEndHappensWhollyOrNotAtAll) {
    PresenceActor other;
    other.start();
    {
        PresenceActor starved;
        EXPECT_TRUE(starved.does("starve 3"));
        EXPECT_EQ(countEntries(), 1u);
        Descriptor const file(::open(shared().c_str(), O_RDWR | O_CLOEXEC));
        struct flock held {};
        held.l_type = F_WRLCK;
        held.l_start = 0x1010002;
        ASSERT_EQ(fcntl(file.get(), F_GETLK, &held), 0);
        EXPECT_EQ(held.l_type, F_UNLCK) << "behind that of the other";
    }
    EXPECT_SOON(other.known() == 1);
}

TEST_F(FolderTest, withoutProcAStartIsRefusedWithAClearLine) {
    PresenceActor actor;
    if (!actor.does("withoutProc"))
        GTEST_SKIP() << "this user may not hide /proc from a process";
    EXPECT_EQ(actor.start(), kRefused);
    EXPECT_TRUE(actor.child().waitForErrorLine("/proc, which is not mounted"));
}

TEST_F(FolderTest, whoDiesIsBuriedAlsoWhenAForkedChildKeepsItsSocket) {
    PresenceActor watcher;
    watcher.start();
    PresenceActor parent;
    std::string const id = parent.start();
    ASSERT_TRUE(watcher.waitUntilTold("arrived", id));
    parent.does("linger");
    parent.child().kill();
    EXPECT_TRUE(watcher.waitUntilTold("departed", id));
    PresenceActor newcomer;
    newcomer.start();
    EXPECT_EQ(newcomer.known(), 2u);
}

// ---- Entries ----

TEST_F(FolderTest, whoIsThereIsKnownAlsoWithoutADescriptorLeftAndALinkLeadsNowhere) {
    auto const folder = Transport::EntryFolder::open(folder_.path());
    ASSERT_NE(folder, nullptr);
    auto const socket = listenAt("03010001.x");
    fs::create_symlink(inFolder("03010001.x"), inFolder("03010002.x"));
    EXPECT_EQ(folder->probe("03010001.x"), Transport::EntryFolder::Socket::Alive);
    EXPECT_TRUE(folder->connect("03010001.x").valid());
    EXPECT_EQ(folder->probe("03010002.x"), Transport::EntryFolder::Socket::Alive)
        << "what was there may come back";
    EXPECT_FALSE(folder->connect("03010002.x").valid());
    listenAt("03010003.x");
    testsupport::NoDescriptors const none;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(folder->probe("03010001.x"), Transport::EntryFolder::Socket::Alive);
        EXPECT_EQ(folder->probe("03010003.x"), Transport::EntryFolder::Socket::Dead);
        EXPECT_EQ(folder->list().size(), 2u);
    }
    fs::remove(shared());
    EXPECT_NE(folder->reopen(1), nullptr);
}

TEST_F(FolderTest, manyEntriesOfOneIdHideNobody) {
    PresenceActor actor;
    std::string const id = actor.start();
    Descriptor const socket = testsupport::socketAt(inFolder("many"));
    ASSERT_EQ(listen(socket.get(), 4096), 0);
    ASSERT_EQ(fcntl(socket.get(), F_SETFL, O_NONBLOCK), 0);
    for (int i = 0; i < 1000; ++i)
        fs::create_hard_link(inFolder("many"),
                             inFolder(id + ".group3.slot1.pid1." + std::to_string(i)));
    PresenceActor newcomer;
    EXPECT_TRUE(actor.waitUntilTold("arrived", newcomer.start()));
    EXPECT_TRUE(newcomer.waitUntilTold("arrived", id));
}

TEST_F(FolderTest, aNameThatVeryManyEntriesBearIsPassedOverAtOnce) {
    PresenceActor actor;
    std::string const first = actor.start();
    actor.does("stop " + first);  // nobody is there who removes what has no owner
    for (char const* name : {"0002", "0003"})
        for (int i = 0; i < (name[3] == '2' ? 65 : 64); ++i) {
            std::string const file = "0301" + std::string(name) + ".group3.slot1.pid1.";
            ASSERT_EQ(mknod(inFolder(file + std::to_string(i)).c_str(), S_IFSOCK | 0600, 0), 0);
        }
    EXPECT_EQ(actor.start().substr(4), "0003") << "all who bear this one have been looked at";
    EXPECT_SOON(countEntries() == 1);
}

TEST_F(FolderTest, entriesThatBearTheIdsOfOthersFoolNobody) {
    PresenceActor first;
    PresenceActor second;
    std::string const a = first.start();
    std::string const b = second.start();
    ASSERT_SOON(first.known() == 2 && second.known() == 2);
    std::string const tail = ".group3.slot1.pid1.x";
    std::vector<Descriptor> sockets;
    for (std::string const& name :
         {a + tail, b + tail, "0401" + a.substr(4) + tail, "03010fff" + tail})
        sockets.push_back(listenAt(name));
    ASSERT_EQ(mkfifo(inFolder("03010ffe" + tail).c_str(), 0600), 0);
    ASSERT_EQ(mkdir(inFolder("03010ffd" + tail).c_str(), 0700), 0);
    PresenceActor newcomer;
    std::string const c = newcomer.start();
    for (PresenceActor* actor : {&first, &second, &newcomer}) {
        EXPECT_TRUE(actor->waitUntilTold("arrived", c));
        EXPECT_SOON(actor->known() == 3);
    }
    for (PresenceActor* actor : {&first, &second})
        EXPECT_EQ(actor->timesTold("departed", a) + actor->timesTold("departed", b), 0u);
    for (std::string const& id : {a, b})
        fs::remove(inFolder(id + tail));
    std::string const replaced = fileOf(b).filename();
    for (std::string const& id : {a, b})
        fs::remove(fileOf(id));
    sockets.push_back(listenAt(replaced));
    PresenceActor().start();
    for (PresenceActor* actor : {&first, &second})
        EXPECT_TRUE(actor->child().waitForErrorLine("Somebody has removed"));
    EXPECT_TRUE(newcomer.waitUntilTold("departed", a));
}

TEST_F(FolderTest, whatFillsTheFolderIsRemovedIfItLooksLikeAnEntryAndFillsNoLog) {
    constexpr unsigned kJunk = testsupport::scaled(5000);
    PresenceActor actor;
    std::string const id = actor.start();
    char const* const others[] = {"note.txt", "03010001.plain", "zzzzzzzz.x", "03010002.folder/x"};
    fs::create_directory(inFolder("03010002.folder"));
    for (char const* name : others)
        std::ofstream(inFolder(name)) << "x";
    for (unsigned i = 0; i < kJunk; ++i) {
        std::string const name = hex(0x03018000 + i) + ".group3.slot1.pid" + std::to_string(i + 2);
        ASSERT_EQ(mknod(inFolder(name + ".junk").c_str(), S_IFSOCK | 0600, 0), 0);
    }
    PresenceActor newcomer;
    EXPECT_TRUE(actor.waitUntilTold("arrived", newcomer.start()));
    EXPECT_SOON(countEntries() == 2);
    EXPECT_TRUE(newcomer.waitUntilTold("arrived", id));
    EXPECT_LT(actor.child().errorLines().size() + newcomer.child().errorLines().size(), 100u);
    for (char const* name : others)
        EXPECT_TRUE(fs::exists(inFolder(name))) << name;
}

}  // namespace
}  // namespace transporttest
