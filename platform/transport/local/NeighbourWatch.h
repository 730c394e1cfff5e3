#pragma once

#include <sys/types.h>

#include <vector>

#include "platform/transport/local/Descriptor.h"

namespace Transport {

/**
 * Watches the processes that follow this one in the ring of all processes ordered by process id.
 * Each watches three, so the cost per process stays the same as processes are added, and a stopped
 * watcher hides nobody's death. Belongs to one thread.
 */
class NeighbourWatch {
public:
    /** Makes what `wake` needs. Called once, before anything else and after the last fork that goes
     * on with the transport in the child: parent and child would take each other's wake-ups. */
    void prepare();
    /** Makes `wait` return; any thread. */
    void wake() const;
    /** A process whose locks are to be looked at now. */
    struct Suspect {
        pid_t pid;
        bool ended;  // for sure; else it is not known
    };
    /** Waits for the end of a watched process or for `wake`. */
    std::vector<Suspect> wait();
    /** Whether it has ended for sure. */
    static bool hasEnded(pid_t pid);
    /** Those among `processes`, which are in ascending order, that this process is to watch. */
    static std::vector<pid_t> neighboursAmong(std::vector<pid_t> const& processes);
    /** Watches `neighbours` and nobody else. Answers those who were not watched before: they may
     * have died already, so their locks are to be looked at. */
    std::vector<Suspect> choose(std::vector<pid_t> const& neighbours);
    /** Watches nobody. */
    void clear() { watched_.clear(); }

private:
    struct Watched {
        pid_t pid;
        Descriptor handle;  // invalid: looked at from time to time
    };

    Descriptor bell_;  // constant once prepared
    std::vector<Watched> watched_;
};

}  // namespace Transport
