#pragma once

#include <string>
#include <vector>

#include "oswrap/Export.h"

namespace Transport {

/**
 * Who this process is: its slot, whether its unit is an auxiliary one, which controller is active,
 * its name. Slots 1 and 2 hold the two redundant controllers. Any thread.
 */
class REFLECTORB_API IdInfo {
public:
    static IdInfo& instance();

    /** The slot of this unit, 1 to 255. */
    unsigned char getSlot() const;
    /** Whether this unit is an auxiliary one. */
    bool isAxu() const;
    /** The slot (1 or 2) of the active controller; may change while the program runs. */
    unsigned char activeSlot() const;
    /** Whether the unit in `slot` is an auxiliary one. */
    bool axuInSlot(unsigned char slot) const;
    /** The actor's name; the reference stays valid for the life of the process. */
    std::string const& getActor() const;
};

/**
 * Tells the platform layer who this process is, before the first broker. What the program does not
 * set comes from the environment: TRANSPORT_SLOT (default 1), TRANSPORT_ACTIVE_SLOT (1),
 * TRANSPORT_AXU_SLOTS (numbers with commas between, none), TRANSPORT_ACTOR (the executable's name),
 * TRANSPORT_DIR (a folder of the user's below the runtime directory).
 * Each setter answers false, with a log line at level 3, for a value that makes no sense or when it
 * comes too late, and changes nothing then.
 */
class REFLECTORB_API Setup {
public:
    static bool slot(int value);
    /** May be called at any time. */
    static bool activeSlot(int value);
    static bool axuSlots(std::vector<int> const& values);
    static bool actor(std::string const& name);
    /** The rendezvous folder; made with mode 0700 when absent. */
    static bool directory(std::string const& path);
    /** Whether waiting threads may poll for a short time before they sleep (default true). May be
     * called at any time. */
    static bool polling(bool on);
};

}  // namespace Transport
