#include "platform/transport/local/Rivals.h"

#include <algorithm>
#include <cstddef>
#include <optional>

#include "platform/transport/local/NeighbourWatch.h"

namespace Transport {
namespace {

/** So many entries with the same lock are looked at in one go. Among more, only the lock tells. */
constexpr std::ptrdiff_t kMost = 64;

/** As seen where the file in use was made then. */
bool isSenior(EntryTimes const& one, EntryTimes const& other, long long fileMade) {
    return one.made < other.made && one.shown < fileMade &&
           (other.shown >= fileMade || one.shown < other.shown);
}

}  // namespace

bool Rivals::believe(FolderEntry const& entry, bool holdsLock) const {
    auto const [first, last] =
        std::equal_range(all_.begin(), all_.end(), entry, FolderEntry::precedes);
    if (last - first == 1)
        return true;
    if (last - first > kMost || (holdsLock && entry.id.slotId() != slot_))
        return holdsLock;
    auto const identity = files_.identityOf(entry.file);
    auto const times = files_.timesOf(entry.file);
    auto const fileMade = files_.file()->madeAt();
    auto const beats = [&](FolderEntry const& other) {
        auto const otherTimes = files_.timesOf(other.file);
        if (!times || !otherTimes || !fileMade)
            return holdsLock;
        if (!holdsLock)
            return isSenior(*times, *otherTimes, *fileMade);
        return !isSenior(*otherTimes, *times, *fileMade) || !mayListen(other);
    };
    return std::all_of(first, last, [&](FolderEntry const& other) {
        return other.id != entry.id || other.file == entry.file ||
               files_.probe(other.file) != EntryFolder::Socket::Alive ||
               files_.identityOf(other.file) == identity ||  // another name of the same socket
               beats(other);
    });
}

/** Whether the process that an entry names listens there, as far as can be told: a forked child may
 * listen on after its parent's end. */
bool Rivals::mayListen(FolderEntry const& entry) const {
    pid_t const listener = files_.listenerOf(entry.file);
    return listener == EntryFolder::kUnknown ||
           (listener > 0 && EntryFolder::isOf(listener, entry.file) &&
            !NeighbourWatch::hasEnded(listener));
}

}  // namespace Transport
