#pragma once

#include <vector>

#include "platform/transport/local/EntryFolder.h"

namespace Transport {

/**
 * Several living sockets may bear one id: one is its owner's, and others imitate it. The lock tells
 * which, as long as the file with the locks is never replaced. In a new file an imitator may be
 * faster; but who was there before the file did not come with it. So an entry is believed
 *
 * - by seniority: it came into view before the file in use was made, and the other one did not, or
 *   did so later; and its socket was made before the other's;
 * - else by the lock.
 *
 * Nobody can put back when a socket was made, or when it came into view (was renamed last). Who
 * changes anything of another's entry makes that look as if it had come later, and then the lock
 * decides; so it does on disks that do not note these times, and for ids of other machines, which
 * their link takes whoever has shown them before.
 *
 * An imitator of the same user is still believed if he bound his socket before the owner did and
 * then has the file replaced, or the clock set back; as well as if he takes the lock in a new file
 * where the lock decides.
 */
class Rivals {
public:
    /** Of the folder's entries, sorted by FolderEntry::precedes. They and `files` live longer. */
    Rivals(EntryFolder const& files, std::vector<FolderEntry> const& all, unsigned char slot)
        : files_(files), all_(all), slot_(slot) {}

    /** Whether a living entry is believed, although others may bear its id. */
    bool believe(FolderEntry const& entry, bool holdsLock) const;

private:
    bool mayListen(FolderEntry const& entry) const;

    EntryFolder const& files_;
    std::vector<FolderEntry> const& all_;
    unsigned char const slot_;  // of this machine
};

}  // namespace Transport
