#include "reflect/notices/TreflectMissedOrbs.h"

#include <algorithm>

#include "oswrap/Lock.h"
#include "reflect/notices/ClassRecords.h"

void TreflectMissedOrbs::start(std::list<Transport::TerminationId>& members) {
    OSWrap::Lock<> const lock(mutex_);
    missed_.clear();
    addressed_.clear();
    for (Transport::TerminationId const& member : members)
        addressed_.insert(orb_.convertId(member));
}

void TreflectMissedOrbs::add(TreflectOrbId const& id) {
    OSWrap::Lock<> const lock(mutex_);
    bool const known =
        addressed_.count(id) != 0 || std::find(missed_.begin(), missed_.end(), id) != missed_.end();
    if (!known)
        missed_.push_back(id);
}

void TreflectMissedOrbs::forget(TreflectOrbId const& id) {
    OSWrap::Lock<> const lock(mutex_);
    missed_.erase(std::remove(missed_.begin(), missed_.end(), id), missed_.end());
    addressed_.erase(id);
}

bool TreflectMissedOrbs::empty() {
    OSWrap::Lock<> const lock(mutex_);
    return missed_.empty();
}

void TreflectMissedOrbs::notify(unsigned int classId, TreflectObserver& observer,
                                bool plusExisting) {
    std::vector<TreflectOrbId> missed;
    {
        OSWrap::Lock<> const lock(mutex_);
        missed = missed_;
    }
    auto const kind = forCreations_ ? NoticeKind::Creation : NoticeKind::Deletion;
    for (TreflectOrbId const& id : missed) {
        if (!records_.catchUp(kind, classId, observer, plusExisting, id))
            return;
    }
}
