#pragma once

#include <vector>

#include "platform/transport/local/EntryFolder.h"

namespace Transport {

/**
 * Several living sockets may bear one id: one is its owner's, and others imitate it. The lock tells
 * which, as long as the file with the locks is never replaced. In a new file an imitator may be
 * faster; but who was there before the file is nobody who came with it. So an entry is believed
 *
 * - by seniority: it came into view before the file in use was made, and the other one did not, or
 *   was made later and came into view later, too;
 * - else by the lock.
 *
 * When a socket was made nobody can put back, and when it came into view (was renamed last) nobody
 * can either: who changes anything of another's entry makes that look younger, and then the lock
 * decides, as it does on disks that do not note the one or the other.
 */
class Rivals {
public:
    /** Of the folder's entries, sorted by FolderEntry::precedes. They and `files` live longer. */
    Rivals(EntryFolder const& files, std::vector<FolderEntry> const& all)
        : files_(files), all_(all) {}

    /** Whether a living entry is believed, although others may bear its id. */
    bool believe(FolderEntry const& entry, bool holdsLock) const;

private:
    bool isSenior(FolderEntry const& one, FolderEntry const& other) const;
    bool mayListen(FolderEntry const& entry) const;

    EntryFolder const& files_;
    std::vector<FolderEntry> const& all_;
};

}  // namespace Transport
