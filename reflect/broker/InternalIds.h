#pragma once

#include <cstdint>
#include <deque>
#include <map>

#include "handler_threads/RunPermission.h"

/**
 * The internal object ids in use in this process, for machines whose addresses are wider than an
 * id. An object asks for the low 32 bits of its address; if that is 0 or taken it gets the next
 * free number above (beyond the highest, the lowest). An id that was given back stays taken for the
 * next 65,536 registrations, so that a stale handle finds nobody rather than a stranger. The object
 * that gave it back gets it again when it returns: handles on it, anywhere, are good again.
 *
 * The taken ids are kept as intervals: objects that come and go at the same address, the usual
 * case, cost a few of them.
 */
class InternalIds {
public:
    static constexpr std::uint64_t kRest = 65536;  // registrations

    /** Never destroyed. */
    static InternalIds& instance();

    /** Takes an id, `wanted` if possible. */
    std::uint32_t take(std::uint32_t wanted) OSW_REQUIRES_PERMISSION;
    /** Takes the id that `owner` had and gave back; false when it is no longer to be had. */
    bool takeAgain(std::uint32_t id, void const* owner) OSW_REQUIRES_PERMISSION;
    /** Gives an id back. `owner` is not looked at. */
    void giveBack(std::uint32_t id, void const* owner) OSW_REQUIRES_PERMISSION;

private:
    struct Resting {
        std::uint32_t id;
        void const* owner;
        std::uint64_t until;  // number of the registration that may have it again
    };

    void endRests() OSW_REQUIRES_PERMISSION;
    std::uint32_t nextFree(std::uint32_t wanted) const OSW_REQUIRES_PERMISSION;
    void insert(std::uint32_t id) OSW_REQUIRES_PERMISSION;
    void erase(std::uint32_t id) OSW_REQUIRES_PERMISSION;

    std::uint64_t registrations_ OSW_GUARDED_BY_PERMISSION = 0;
    // First and last of each interval; none adjoin.
    std::map<std::uint32_t, std::uint32_t> taken_ OSW_GUARDED_BY_PERMISSION;
    std::deque<Resting> resting_ OSW_GUARDED_BY_PERMISSION;  // oldest first; also in taken_
};
