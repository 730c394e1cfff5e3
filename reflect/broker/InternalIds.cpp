#include "reflect/broker/InternalIds.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "oswrap/OutOfMemory.h"

namespace {
constexpr std::uint32_t kHighest = std::numeric_limits<std::uint32_t>::max();
}

InternalIds& InternalIds::instance() {
    static InternalIds& ids = *new InternalIds;
    return ids;
}

std::uint32_t InternalIds::take(std::uint32_t wanted) {
    ++registrations_;
    endRests();
    std::uint32_t const id = nextFree(wanted == 0 ? 1 : wanted);
    insert(id);
    return id;
}

// Who returns has mostly left just before.
bool InternalIds::takeAgain(std::uint32_t id, void const* owner) {
    auto const last = std::find_if(resting_.rbegin(), resting_.rend(),
                                   [id](Resting const& resting) { return resting.id == id; });
    if (last == resting_.rend() || last->owner != owner)
        return false;
    resting_.erase(std::prev(last.base()));
    ++registrations_;
    endRests();
    return true;
}

void InternalIds::giveBack(std::uint32_t id, void const* owner) {
    // Without memory for that it is never given again.
    OSWrap::withMemory([&] {
        handlerthreads::trustPermission();
        resting_.push_back({id, owner, registrations_ + kRest + 1});
    });
}

void InternalIds::endRests() {
    while (!resting_.empty() && resting_.front().until <= registrations_) {
        erase(resting_.front().id);
        resting_.pop_front();
    }
}

std::uint32_t InternalIds::nextFree(std::uint32_t wanted) const {
    auto const above = taken_.upper_bound(wanted);
    if (above == taken_.begin())
        return wanted;
    std::uint32_t const last = std::prev(above)->second;
    if (last < wanted)
        return wanted;
    return last == kHighest ? nextFree(1) : last + 1;
}

void InternalIds::insert(std::uint32_t id) {
    auto const above = taken_.upper_bound(id);
    bool const joinsAbove = above != taken_.end() && above->first - 1 == id;
    bool const joinsBelow = above != taken_.begin() && std::prev(above)->second + 1 == id;
    std::uint32_t const last = joinsAbove ? above->second : id;
    if (joinsBelow)
        std::prev(above)->second = last;
    else
        taken_.emplace_hint(above, id, last);
    if (joinsAbove)
        taken_.erase(above);
}

void InternalIds::erase(std::uint32_t id) {
    auto const interval = std::prev(taken_.upper_bound(id));
    std::uint32_t const last = interval->second;
    if (id != last)  // first, since memory may run out
        taken_.emplace(id + 1, last);
    if (interval->first == id)
        taken_.erase(interval);
    else
        interval->second = id - 1;
}
