#pragma once

#include <vector>

#include "oswrap/Mutex.h"
#include "reflect/broker/OngoingRequest.h"
#include "transport/TerminationId.h"

/**
 * A broker's outstanding requests (`ongoingRequests_`) by transaction id, and the choice of new
 * ids. All ids of a broker share their low 20 bits, which tell its name and slot; the top 12 bits
 * count and are the index of the table. The records are not owned.
 */
class RequestTable {
public:
    static constexpr unsigned int kCapacity = 4096;

    enum class Beginning { Begun, Exhausted, Closed };
    struct Ticket {
        Beginning beginning;
        unsigned int id;  // the new id; the last one given when there is none
    };
    /** With a target and no record it is abandoned: nobody waits, but an answer may still come,
     * which is not to be taken for that of a later request of the same id. */
    struct Entry {
        OngoingRequest* record = nullptr;
        Transport::TerminationId target;

        bool isAbandoned() const { return !record && target.value() != 0; }
    };
    /** What an answer found: the record, if the one who answers was asked; else whom that request
     * went to, 0 when nobody waits under the id. */
    using Found = Entry;

    /** `seed`: the last transaction id, of which the low 20 bits stay. */
    explicit RequestTable(unsigned int seed) : lastId_(seed), slots_(kCapacity) {}

    /** Begins a request of `record` to `target` under a fresh id. With `enter` a response to it
     * will find the record. The record and the table know the target from the same moment.
     * `request`: for diagnostics, see OngoingRequest. */
    Ticket begin(OngoingRequest& record, Transport::TerminationId target, bool enter,
                 TreflectMessage const* request = nullptr);
    /** Takes a record out, to deliver to it; null when nobody waits under that id. */
    OngoingRequest* take(unsigned int id);
    enum class Answer { CannotCome, MayCome };
    /** Takes out what `begin` entered for `record`. False when somebody has taken it out to deliver
     * to it; the id may be another one's by now. An id whose answer may come rests until that has
     * come, its target has gone, or few others are free. */
    bool withdraw(unsigned int id, OngoingRequest const& record, Answer answer);
    /** The same for an answer that comes from `answerer`; nothing is taken out if another one was
     * asked. The answer to an abandoned request finds nothing, and frees its id. */
    Found take(unsigned int id, Transport::TerminationId answerer);
    /** Whether a request to `target` is outstanding. */
    bool awaits(Transport::TerminationId target);
    /** Takes the records out whose requests went to `target`, which answers no more. */
    std::vector<OngoingRequest*> takeAllOf(Transport::TerminationId target);
    /** What those who wait wait for, for diagnostics. */
    std::vector<OngoingRequest::Glimpse> glimpse();
    /** Takes everything out and frees the table; from now on `begin` answers closed. */
    std::vector<Entry> close();

private:
    static constexpr unsigned int kShift = 20;

    static unsigned int slotOf(unsigned int id) { return id >> kShift; }
    /** The id with its top 12 bits raised by one; they wrap. */
    static unsigned int successor(unsigned int id) { return id + (1u << kShift); }
    /** Whether one of our ids, and the table still there to look it up. */
    bool isOurs(unsigned int id) const OSW_REQUIRES(mutex_) {
        return !closed_ && (id ^ lastId_) << (32 - kShift) == 0;
    }
    /** Takes out what stands there, if anything. */
    void clear(Entry& slot) OSW_REQUIRES(mutex_);
    /** Whether a new request may have the id of that slot. With many abandoned ones, of a target
     * that never answers, all may be given: the others would be few, and far apart. */
    bool isFree(Entry const& slot) const OSW_REQUIRES(mutex_) {
        return !slot.record && (!slot.isAbandoned() || abandoned_ > kCapacity / 2 ||
                                entered_ + abandoned_ == kCapacity);
    }

    /// The broker's request mutex. A record's own lock may be taken under it. Nothing is logged,
    /// sent or waited for under it.
    OSWrap::Mutex mutex_;
    unsigned int lastId_ OSW_GUARDED_BY(mutex_);
    bool closed_ OSW_GUARDED_BY(mutex_) = false;
    std::vector<Entry> slots_ OSW_GUARDED_BY(mutex_);     // kCapacity of them; none once closed
    unsigned int entered_ OSW_GUARDED_BY(mutex_) = 0;     // slots with a record
    unsigned int abandoned_ OSW_GUARDED_BY(mutex_) = 0;   // slots with a target only
    std::size_t lastAwaited_ OSW_GUARDED_BY(mutex_) = 0;  // index that `awaits` found last
};
