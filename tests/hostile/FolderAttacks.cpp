// On the rendezvous folder, which is the current directory.
#include <sys/stat.h>

#include "Field.h"

namespace hostile {
namespace {

constexpr char kShared[] = "presence";

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
            static_cast<void>(!::symlink(kShared, name.c_str()));
            break;
    }
    files.push_back(name);
    if (files.size() > 100) {
        std::remove(files.front().c_str());
        files.pop_front();
    }
    field.entry().folder().announce();
}

/** Deleted, cut short, written over, replaced by another. */
void spoilPresence(Field& field) {
    field.leave();
    Descriptor const shared(::open(kShared, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    std::uint32_t const word = field.number();
    switch (field.dice(5)) {
        case 0:
            ::unlink(kShared);
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

}  // namespace

Attacks folderAttacks() {
    return {{"junk", "fills the folder with files of all kinds", litter},
            {"presence", "deletes, cuts and replaces the shared file", spoilPresence},
            {"locks", "holds the locks of the counter and of names", holdLocks}};
}

}  // namespace hostile
