#include "reflect/broker/RequestTable.h"

#include <algorithm>

#include "oswrap/Lock.h"

RequestTable::Ticket RequestTable::begin(OngoingRequest& record, Transport::TerminationId target,
                                         bool enter, TreflectMessage const* request) {
    if (record.delivered())  // is freed without the locks
        record.free();
    OSWrap::Lock<> const lock(mutex_);
    if (closed_)
        return {Beginning::Closed, lastId_};
    unsigned int id = lastId_;
    for (unsigned int tries = 0; tries < kCapacity; ++tries) {
        id = successor(id);
        Entry& slot = slots_[slotOf(id)];
        if (!isFree(slot))
            continue;
        lastId_ = id;
        // Before the record can be found: a departure that takes it out must know its target.
        record.setTransactionAndTerminationId(id, target, request);
        if (enter) {
            clear(slot);
            slot = {&record, target};
            ++entered_;
        }
        return {Beginning::Begun, id};
    }
    return {Beginning::Exhausted, lastId_};
}

OngoingRequest* RequestTable::take(unsigned int id) {
    OSWrap::Lock<> const lock(mutex_);
    if (!isOurs(id))
        return nullptr;
    Entry& slot = slots_[slotOf(id)];
    OngoingRequest* const record = slot.record;
    clear(slot);
    return record;
}

void RequestTable::clear(Entry& slot) {
    if (slot.record)
        --entered_;
    else if (slot.isAbandoned())
        --abandoned_;
    slot = {};
}

bool RequestTable::withdraw(unsigned int id, OngoingRequest const& record, Answer answer) {
    OSWrap::Lock<> const lock(mutex_);
    if (!isOurs(id) || slots_[slotOf(id)].record != &record)
        return false;
    Entry& slot = slots_[slotOf(id)];
    Transport::TerminationId const target = slot.target;
    clear(slot);
    if (answer == Answer::MayCome && target.value() != 0) {
        slot.target = target;
        ++abandoned_;
    }
    return true;
}

RequestTable::Found RequestTable::take(unsigned int id, Transport::TerminationId answerer) {
    OSWrap::Lock<> const lock(mutex_);
    if (!isOurs(id))
        return {};
    Entry& slot = slots_[slotOf(id)];
    Found const found = slot.record ? slot : Found();
    if (slot.target != answerer)
        return {nullptr, found.target};
    clear(slot);
    return found;
}

bool RequestTable::awaits(Transport::TerminationId target) {
    auto const goesTo = [target](Entry const& slot) {
        return slot.record && slot.target == target;
    };
    OSWrap::Lock<> const lock(mutex_);
    if (closed_)
        return false;
    if (goesTo(slots_[lastAwaited_]))
        return true;
    // The youngest first, and no further than the oldest.
    unsigned int slot = slotOf(lastId_);
    for (unsigned int left = entered_; left > 0; slot = (slot + kCapacity - 1) % kCapacity) {
        if (goesTo(slots_[slot])) {
            lastAwaited_ = slot;
            return true;
        }
        left -= slots_[slot].record ? 1 : 0;
    }
    return false;
}

std::vector<OngoingRequest*> RequestTable::takeAllOf(Transport::TerminationId target) {
    std::vector<OngoingRequest*> records;
    OSWrap::Lock<> const lock(mutex_);
    auto const isOfTarget = [target](Entry const& slot) {
        return (slot.record || slot.isAbandoned()) && slot.target == target;
    };
    // Before any is taken out, since memory may run out.
    records.reserve(
        static_cast<std::size_t>(std::count_if(slots_.begin(), slots_.end(), isOfTarget)));
    for (Entry& slot : slots_) {
        if (!isOfTarget(slot))
            continue;
        if (slot.record)
            records.push_back(slot.record);
        clear(slot);
    }
    return records;
}

std::vector<OngoingRequest::Glimpse> RequestTable::glimpse() {
    std::vector<OngoingRequest::Glimpse> seen;
    OSWrap::Lock<> const lock(mutex_);
    for (Entry const& slot : slots_) {
        if (slot.record)
            seen.push_back(slot.record->glimpse());
    }
    return seen;
}

std::vector<RequestTable::Entry> RequestTable::close() {
    std::vector<Entry> entries;
    {
        OSWrap::Lock<> const lock(mutex_);
        closed_ = true;
        entries.swap(slots_);
    }
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [](Entry const& entry) { return !entry.record; }),
                  entries.end());
    return entries;
}
