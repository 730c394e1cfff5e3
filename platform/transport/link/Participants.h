#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>

#include "oswrap/Lock.h"
#include "oswrap/Mutex.h"

namespace Link {

/** Bytes of the name of a machine, or of whoever is in sight. */
constexpr std::size_t kMostName = 128;

/** What another one says it is called, for logs and terminals: ASCII of bounded length. */
std::string printable(std::string text);

/**
 * Who takes part in the bus, as far as the engine vouches for it: which participant has announced
 * which epoch, so that what another one says of that, or in its name, does not count; and who is in
 * sight without having been let in. Any thread; times in nanoseconds.
 */
class Participants {
public:
    using Guid = std::array<unsigned char, 16>;
    using Writer = std::uint64_t;  // the engine's handle; none is given twice

    Participants() = default;
    /** When all calls have returned: which the engine sees to, by locks that only it knows of. What
     * looks for races knows of this one. */
    ~Participants() { OSWrap::Lock<> const last(mutex_); }
    Participants(Participants const&) = delete;
    Participants& operator=(Participants const&) = delete;

    // ---- Announcements ----
    /** False when another participant has announced it. */
    bool announced(std::uint64_t epoch, Writer writer, Guid const& participant);
    /** Whether a writer is of who has announced it; nothing when `isOf` must be told whose it is.
     */
    std::optional<bool> isKnown(std::uint64_t epoch, Writer writer) const;
    bool isOf(std::uint64_t epoch, Writer writer, Guid const& participant);
    void lost(std::uint64_t epoch);

    // ---- Strangers ----
    /** `name` is for the log, and may hold anything. */
    void seen(Guid const& participant, std::string const& name, long long time);
    void gone(Guid const& participant);
    /** Logs who has not announced an epoch for long, once for each. How long nobody need be told
     * of, in milliseconds; negative: until another one is seen. */
    int tellStrangers(long long time);

private:
    struct Announcer {
        Guid participant;
        std::set<Writer> writers;  // its own
    };
    struct Sighting {
        std::string name;
        long long since;
    };

    mutable OSWrap::Mutex mutex_;  // a leaf
    std::unordered_map<std::uint64_t, Announcer> announcers_ OSW_GUARDED_BY(mutex_);
    std::map<Guid, Sighting> strangers_ OSW_GUARDED_BY(mutex_);  // who is to be told of
};

}  // namespace Link
