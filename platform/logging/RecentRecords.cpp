#include "logging/RecentRecords.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string_view>

#include "RecordRing.h"
#include "oswrap/Immortal.h"
#include "oswrap/Lock.h"

namespace Logging {

std::atomic<bool> keepsRecords{false};

namespace {

/** Copies as much as there is room for, and a NUL. */
template <std::size_t N>
void copyInto(char (&to)[N], std::string_view from, std::string_view signOfMore) {
    std::size_t const most = N - 1;
    std::size_t const kept = from.size() <= most ? from.size() : most - signOfMore.size();
    std::memcpy(to, from.data(), kept);
    to[kept] = '\0';
    if (kept < from.size())
        std::memcpy(to + kept, signOfMore.data(), signOfMore.size() + 1);
}

/** A record without pointers to what goes. */
struct Slot {
    int level;
    int line;
    std::timespec time;
    long thread;
    char source[28];
    char text[RecentRecords::kMostCharacters + 1];
};

using Slots = std::array<Slot, RecentRecords::kMostRecords>;

struct Ring {
    std::atomic<RecentRecords::Wake> wake{nullptr};  // set before, and read after, what is below
    OSWrap::Mutex mutex;                             // a leaf lock
    unsigned int users OSW_GUARDED_BY(mutex) = 0;
    std::uint64_t last OSW_GUARDED_BY(mutex) = 0;   // number of the last record
    std::uint64_t first OSW_GUARDED_BY(mutex) = 1;  // that of the first since they are kept
    std::unique_ptr<Slots> slots OSW_GUARDED_BY(mutex);
};

/** Never destroyed: threads log until the process has ended. */
Ring& ring() {
    static OSWrap::Immortal<Ring> ring;
    return *ring;
}

Slot& slotOf(Slots& slots, std::uint64_t number) {
    return slots[static_cast<std::size_t>(number % RecentRecords::kMostRecords)];
}

/** The first number above `after` that is kept; beyond the last one when there is none. */
std::uint64_t firstAfter(std::uint64_t after, Ring const& kept) OSW_REQUIRES(kept.mutex) {
    std::uint64_t const most = RecentRecords::kMostRecords;
    std::uint64_t const oldest = kept.last >= most ? kept.last - most + 1 : 1;
    return std::max({oldest, kept.first, after < kept.last ? after + 1 : kept.last + 1});
}

RecentRecord recordOf(Slot const& slot, std::uint64_t number) {
    return {number, slot.level, slot.time, slot.thread, slot.source, slot.line, slot.text};
}

/** False when nobody wants it any more. */
bool enter(Record const& record, Ring& kept) {
    OSWrap::Lock<> const lock(kept.mutex);
    if (!kept.slots)
        return false;
    Slot& slot = slotOf(*kept.slots, ++kept.last);
    slot.level = record.level;
    slot.line = record.line;
    slot.time = record.time;
    slot.thread = record.thread;
    copyInto(slot.source, record.source, "");
    copyInto(slot.text, record.text, "...");
    return true;
}

}  // namespace

void keepRecord(Record const& record) {
    Ring& kept = ring();
    if (!enter(record, kept) || !kept.wake.load(std::memory_order_relaxed))
        return;
    if (RecentRecords::Wake const wake = kept.wake.exchange(nullptr))
        wake();
}

RecentRecords::RecentRecords() {
    Ring& kept = ring();
    OSWrap::Lock<> const lock(kept.mutex);
    if (kept.users == 0) {
        kept.slots = std::make_unique<Slots>();
        kept.first = kept.last + 1;
        keepsRecords.store(true, std::memory_order_relaxed);
    }
    ++kept.users;
}

RecentRecords::~RecentRecords() {
    std::unique_ptr<Slots> ending;  // outlasts the lock
    Ring& kept = ring();
    OSWrap::Lock<> const lock(kept.mutex);
    if (--kept.users > 0)
        return;
    keepsRecords.store(false, std::memory_order_relaxed);
    ending = std::move(kept.slots);
}

std::uint64_t RecentRecords::last() {
    Ring& kept = ring();
    OSWrap::Lock<> const lock(kept.mutex);
    return kept.last;
}

bool RecentRecords::areAfter(std::uint64_t after, long but) {
    Ring& kept = ring();
    OSWrap::Lock<> const lock(kept.mutex);
    if (!kept.slots)
        return false;
    std::uint64_t number = firstAfter(after, kept);
    while (number <= kept.last && slotOf(*kept.slots, number).thread == but)
        ++number;
    return number <= kept.last;
}

RecentRecords::Wake RecentRecords::wakeAtNext(Wake wake) {
    return ring().wake.exchange(wake);
}

std::vector<RecentRecord> RecentRecords::after(std::uint64_t after) {
    std::vector<RecentRecord> records;
    records.reserve(kMostRecords);
    Ring& kept = ring();
    OSWrap::Lock<> const lock(kept.mutex);
    if (!kept.slots)
        return records;
    for (std::uint64_t number = firstAfter(after, kept); number <= kept.last; ++number)
        records.push_back(recordOf(slotOf(*kept.slots, number), number));
    return records;
}

}  // namespace Logging
