#pragma once

#include <string>
#include <vector>

#include "oswrap/Export.h"

namespace Transport {

/**
 * How much may wait in one broker of this process to be served. Each message counts 64 bytes more
 * than it has. A value.
 */
struct Backlog {
    int senderKibibytes;  ///< of one sender
    int senderMessages;   ///< likewise, by their number
    int kibibytes;        ///< in all
    int messages;         ///< likewise, by their number
};

/**
 * Who this process is: its slot, whether its unit is an auxiliary one (AXU), which controller is
 * active, its name. Slots 1 and 2 hold the two redundant controllers. The values come from Setup
 * or, failing that, from the environment; a value there that makes no sense is logged at level 3
 * and counts as absent, and the process then gets no terminations. Any thread.
 */
class REFLECTORB_API IdInfo {
public:
    /** The one of this process. */
    static IdInfo& instance();

    /** The slot of this unit, 1 to 255; 0 when the environment names none that makes sense. */
    unsigned char getSlot() const;
    /** Whether this unit is an auxiliary one. */
    bool isAxu() const;
    /** The slot (1 or 2) of the active controller; may change while the program runs. 0 when the
     * environment names none that makes sense. */
    unsigned char activeSlot() const;
    /** Whether the unit in `slot` is an auxiliary one. */
    bool axuInSlot(unsigned char slot) const;
    /** The actor's name, empty when the environment's makes no sense; the reference stays valid,
     * and its text unchanged, for the life of the process. */
    std::string const& getActor() const;
    /** How much may wait to be served. */
    Backlog backlog() const;
    /** Whether a call that is not answered within a minute fails, and nobody aborts. */
    bool failsOnSilence() const;
};

/**
 * Tells the platform layer who this process is, before its first termination. What the program does
 * not set comes from the environment, where an empty variable counts as not set:
 *
 * | variable | value | default |
 * |---|---|---|
 * | TRANSPORT_SLOT | 1 to 255 | 1 |
 * | TRANSPORT_ACTIVE_SLOT | 1 or 2 | 1 |
 * | TRANSPORT_AXU_SLOTS | numbers from 3 to 255 with commas between | none |
 * | TRANSPORT_ACTOR | 1 to 255 characters without control characters | the executable's name |
 * | TRANSPORT_SENDER_KIB | 16 to 1,048,576 | 8,192 |
 * | TRANSPORT_SENDER_MESSAGES | 2 to 1,000,000 | 8,192 |
 * | TRANSPORT_BACKLOG_KIB | 16 to 1,048,576 | 65,536 |
 * | TRANSPORT_BACKLOG_MESSAGES | 2 to 1,000,000 | 65,536 |
 * | TRANSPORT_ON_SILENCE | abort or fail | abort |
 * | TRANSPORT_DIR | an absolute path | a folder of the user's own, see below |
 *
 * The default folder is `reflectorb` below XDG_RUNTIME_DIR, or else below /run/user/UID, where
 * such a folder exists and belongs to the user; else /tmp/reflectorb-UID.
 *
 * Each setter answers false, with a log line at level 3, for a value that makes no sense or when it
 * comes too late, and changes nothing then. Any thread.
 */
class REFLECTORB_API Setup {
public:
    /** The slot of this unit, 1 to 255. */
    static bool slot(int value);
    /** The slot of the active controller, 1 or 2. May be called at any time. */
    static bool activeSlot(int value);
    /** The slots of all auxiliary units, each from 3 to 255; replaces what was known. */
    static bool axuSlots(std::vector<int> const& values);
    /** The name of this process, also in its log records. References that getActor gave out before
     * keep the former name. */
    static bool actor(std::string const& name);
    /** The rendezvous folder, an absolute path. Made with mode 0700 when absent (its parent must be
     * there); used only when it is the user's own, with mode 0700, and no symbolic link. */
    static bool directory(std::string const& path);
    /** How much of one sender, and how much in all, may wait in each broker to be served: 16 to
     * 1,048,576 KiB, 2 to 1,000,000 messages. At half of it, or at 512 messages, a sender is held
     * back; what comes beyond it goes back to its sender, as a call that has failed. */
    static bool backlog(Backlog const& most);
    /** For development, where a debugger may stop a process for long: what becomes of a call that a
     * living process does not answer within a minute. By default both processes collect logs and
     * abort; with `on` the call fails (TipprmiFailure::kTimedOut), with a log line at level 3, and
     * this process does not abort when somebody else has waited for it in vain. May be called at
     * any time. */
    static bool failOnSilence(bool on);
    /** Whether waiting threads may poll for a short time before they sleep (default true). May be
     * called at any time. */
    static bool polling(bool on);
};

}  // namespace Transport
