#include "platform/transport/local/Rivals.h"

#include <algorithm>
#include <cstddef>
#include <optional>

#include "platform/transport/local/NeighbourWatch.h"

namespace Transport {
namespace {

/** So many entries with the same lock are looked at in one go. Among more, only the lock tells. */
constexpr std::ptrdiff_t kMost = 64;

}  // namespace

bool Rivals::believe(FolderEntry const& entry, bool holdsLock) const {
    auto const [first, last] =
        std::equal_range(all_.begin(), all_.end(), entry, FolderEntry::precedes);
    if (last - first > kMost)
        return holdsLock;
    return std::none_of(first, last, [&](FolderEntry const& other) {
        if (other.id != entry.id || other.file == entry.file ||
            files_.probe(other.file) != EntryFolder::Socket::Alive || isSenior(entry, other))
            return false;
        return !holdsLock || (isSenior(other, entry) && mayListen(other));
    });
}

bool Rivals::isSenior(FolderEntry const& one, FolderEntry const& other) const {
    auto const times = files_.timesOf(one.file);
    auto const otherTimes = files_.timesOf(other.file);
    auto const fileMade = files_.file()->madeAt();
    if (!times || !otherTimes || !fileMade || times->shown >= *fileMade)
        return false;
    return otherTimes->shown >= *fileMade ||
           (times->made < otherTimes->made && times->shown < otherTimes->shown);
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
