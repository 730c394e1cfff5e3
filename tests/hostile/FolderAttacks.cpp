// On the rendezvous folder, which is the current directory.
#include <linux/futex.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <climits>
#include <cstdio>

#include "Field.h"
#include "platform/transport/local/SharedMemory.h"

namespace hostile {
namespace {

constexpr char kShared[] = "presence";

/** A link that leads to a socket, a pipe, a file, a folder, itself or nowhere. */
void linkAt(Field& field, std::string const& name) {
    constexpr char kPipe[] = "pipe";
    ::mkfifo(kPipe, 0600);
    std::string const targets[] = {field.victim().file, kPipe, kShared, ".", name, "nowhere"};
    require(::symlink(targets[field.dice(6)].c_str(), name.c_str()) == 0, "no link can be made");
}

/** Files, folders, links and sockets, of any name and such as entries have. */
void litter(Field& field) {
    static std::deque<std::string> files;
    char id[16];
    std::snprintf(
        id, sizeof id, "%08x.",
        field.dice(2) == 0 ? field.victim().id.value() ^ (field.dice(2) << 24) : field.number());
    std::string name = field.dice(4) == 0 ? ".new-" : "";
    name += field.dice(3) == 0 ? "" : id;
    name += "junk" + std::to_string(field.number());
    switch (field.dice(4)) {
        case 0:
            testsupport::socketAt(name);
            break;
        case 1:
            Descriptor(::open(name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
            break;
        case 2:
            ::mkdir(name.c_str(), 0700);
            break;
        default:
            linkAt(field, name);
            break;
    }
    files.push_back(name);
    if (files.size() > 100) {
        std::remove(files.front().c_str());
        files.pop_front();
    }
    field.entry().folder().announce();
}

/** Puts a link in place of an entry for a moment: of its own, behind which it lets somebody come
 * back, or of a good one that no good one has to find meanwhile. */
void replaceByLinks(Field& field) {
    constexpr char kAside[] = "aside";
    Entry& own = field.entry();
    bool const isOwn = field.dice(2) == 0;
    std::string const file =
        isOwn ? own.file() : field.victim(field.dice(2) == 0 ? "good-witness" : "good-narrow").file;
    HandMadeLink link = field.open(field.victim());
    require(!link.ended, "nobody lets it in");
    std::remove(kAside);
    linkAt(field, kAside);
    link.put(message(field.number(), counters, request, ""));
    require(::renameat2(AT_FDCWD, kAside, AT_FDCWD, file.c_str(), RENAME_EXCHANGE) == 0,
            "links and entries cannot be exchanged");
    own.folder().announce();
    link.ring();
    link.socket.reset();
    pause(field.dice(20));
    std::rename(kAside, file.c_str());
    own.folder().announce();
}

/** Deleted, cut short, written over, replaced by another or by a link. */
void spoilPresence(Field& field) {
    field.leave();
    Descriptor const shared(::open(kShared, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    std::uint32_t const word = field.number();
    switch (field.dice(6)) {
        case 0:
            ::unlink(kShared);
            break;
        case 4:
            ::unlink(kShared);
            linkAt(field, kShared);
            break;
        case 1:
            static_cast<void>(!::ftruncate(shared.get(), field.dice(2) * 5));
            break;
        case 2:
            static_cast<void>(!::pwrite(shared.get(), &word, sizeof word, field.dice(2) * 4));
            break;
        case 3: {
            Descriptor const other(::open("other", O_CREAT | O_RDWR | O_CLOEXEC, 0600));
            std::rename("other", kShared);
            break;
        }
        default:
            std::rename(kShared, "away");
            ::unlink("away");
            break;
    }
    pause(100 + field.dice(300));
}

/** Those of the counter, and of the names that are to be given next. */
void holdLocks(Field& field) {
    field.leave();
    Descriptor const shared(::open(kShared, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    std::uint32_t last = 0;
    static_cast<void>(!::pread(shared.get(), &last, sizeof last, 4));
    auto const hold = [&](off_t start, off_t length) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = start;
        lock.l_len = length;
        ::fcntl(shared.get(), F_SETLK, &lock);
    };
    if (field.dice(2) == 0)
        hold(8, 1);
    for (off_t name = last % 0xFFFF; name < last % 0xFFFF + 200; ++name)
        hold(0x1010000 + name, 1);
    pause(100 + field.dice(400));
}

/** The word by which all hear of changes: wakes who waits for it, has them wait for another one,
 * and puts it back. */
void confuseByWord(Field& field) {
    field.leave();
    Descriptor const shared(::open(kShared, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    auto const mapping =
        Transport::Mapping::of(shared.get(), 0, 4096, Transport::Mapping::Access::ReadWrite);
    require(mapping.valid(), "the word is not to be had");
    std::uint32_t word = 0;
    require(::pread(shared.get(), &word, sizeof word, 0) == sizeof word, "there is no word");
    for (int i = 0; i < 10; ++i) {
        unsigned char* const another = mapping.data() + 64;
        if (field.dice(2) == 0)
            ::syscall(SYS_futex, mapping.data(), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
        else
            ::syscall(SYS_futex, mapping.data(), FUTEX_REQUEUE, 0, INT_MAX, another, 0);
        pause(field.dice(10));
        static_cast<void>(!::pwrite(shared.get(), &word, sizeof word, 0));
    }
}

}  // namespace

Attacks folderAttacks() {
    return {{"junk", "fills the folder with files of all kinds", litter},
            {"links", "puts links in place of entries", replaceByLinks},
            {"presence", "deletes, cuts and replaces the shared file", spoilPresence},
            {"word", "wakes and moves who waits for changes, and takes them back", confuseByWord},
            {"locks", "holds the locks of the counter and of names", holdLocks}};
}

}  // namespace hostile
