#pragma once

#include <sys/types.h>

namespace Transport {

/**
 * One time that a termination is shown in the rendezvous folder, by its entry there. Whoever is
 * shown under the same id later, by the same process and name even, has another entry: another
 * file, or, where the disk uses the numbers of files again, a later one.
 */
struct Showing {
    dev_t device;
    ino_t file;
    long long since;  // nanoseconds since 1970; changes with anything that is done to the entry

    friend bool operator==(Showing const& one, Showing const& other) {
        return one.device == other.device && one.file == other.file && one.since == other.since;
    }
};

}  // namespace Transport
