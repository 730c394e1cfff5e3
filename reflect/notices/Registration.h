#pragma once

#include <list>
#include <map>
#include <set>
#include <utility>

#include "handler_threads/RunPermission.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObject.h"
#include "reflect/notices/Notice.h"
#include "reflect/notices/NoticeKind.h"
#include "reflect/notices/ObjectPlace.h"
#include "reflect/notices/UnderWay.h"

class ClassRecords;
class TreflectObserver;

/**
 * Something that tells observers of a class what exists, which takes as long as other brokers take
 * to answer: an observer on its way into the list, or all that are listed when a broker came up.
 * Notices that are told meanwhile are remembered, so that nobody is told twice, or of what has
 * gone; and kept for an observer that is not listed yet. It may be removed or destroyed by another
 * thread, or by its own callback.
 *
 * It remembers as well which objects of other brokers anybody is told of while it lasts, since such
 * an object may go before the first observer of deletions has been subscribed at its broker.
 *
 * Of all this it remembers 65,536 objects at most, since others decide how long it lasts and what
 * they tell meanwhile: beyond that an object may be told of twice, or its early end not at all.
 */
class Registration : public ListedWhileItLives {
public:
    using MetaData = TreflectORB::MetaData;

    /** Enters the record's registrations under way. `observer`: null for all that are listed.
     * `since`: how many subscriptions to deletions there had been when the notice that is told came
     * in; without it, now. */
    Registration(ClassRecords& records, MetaData& record, NoticeKind kind,
                 TreflectObserver* observer) OSW_REQUIRES_PERMISSION;
    Registration(ClassRecords& records, MetaData& record, NoticeKind kind,
                 TreflectObserver* observer, unsigned int since) OSW_REQUIRES_PERMISSION;
    /** Leaves the list before the handles that it keeps end: that may have consequences. */
    ~Registration() { unlink(); }
    Registration(Registration const&) = delete;
    Registration& operator=(Registration const&) = delete;

    bool isOf(TreflectObserver const& observer) const OSW_REQUIRES_PERMISSION {
        return observer_ == &observer;
    }
    /** The observer has been removed or is being destroyed. */
    void end() OSW_REQUIRES_PERMISSION { observer_ = nullptr; }
    bool ended() const OSW_REQUIRES_PERMISSION { return !observer_; }
    /** A notice has been told to those that are in the list; else it is kept. */
    void noticed(TreflectObject const& object, Notice const& notice) OSW_REQUIRES_PERMISSION;
    /** The object is no more; or there is one at its place again. */
    void gone(ObjectPlace const& place) OSW_REQUIRES_PERMISSION;
    void back(ObjectPlace const& place) OSW_REQUIRES_PERMISSION { gone_.erase(place); }
    /** Asks a broker what it has: its answer will not tell of what had gone before. */
    void asks(TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION;
    /** Whether an object that a broker says exists has not been told of meanwhile, and is still
     * there; only once. */
    bool isNews(TreflectObject const& object) OSW_REQUIRES_PERMISSION;
    /** Tells the observer of an object that exists, if that is news. */
    void tell(TreflectObject const& object) OSW_REQUIRES_PERMISSION;
    /** Puts the observer into the list and tells it what was kept for it. */
    void enter() OSW_REQUIRES_PERMISSION;

    /** An observer is told of an object of another broker. */
    void heardOf(ObjectPlace const& place, TreflectObject const& object) OSW_REQUIRES_PERMISSION;
    /** Its end is being told. */
    void heardOfEnd(ObjectPlace const& place) OSW_REQUIRES_PERMISSION { heard_.erase(place); }
    /** The class's subscriptions are cancelled. */
    void forgetHeard() OSW_REQUIRES_PERMISSION { heard_.clear(); }
    /** The brokers of which objects were told that may have gone before their deletion was
     * subscribed to. */
    std::set<TreflectOrbId> mayHaveMissedDeletionsAt() const OSW_REQUIRES_PERMISSION;
    /** The objects of a broker that anybody has been told of; not those that are just being told as
     * created, which the broker does not say exist before that has been answered. */
    std::set<ObjectPlace> heardAt(TreflectOrbId const& broker) const OSW_REQUIRES_PERMISSION;
    /** Null when its end has been told. */
    TreflectObject const* heard(ObjectPlace const& place) const OSW_REQUIRES_PERMISSION;

private:
    ClassRecords& records_;
    MetaData& record_;
    NoticeKind const kind_;
    TreflectObserver* observer_ OSW_GUARDED_BY_PERMISSION;
    std::set<ObjectPlace> told_ OSW_GUARDED_BY_PERMISSION;
    std::set<ObjectPlace> gone_ OSW_GUARDED_BY_PERMISSION;
    std::list<std::pair<ObjectPlace, TreflectObject>> kept_ OSW_GUARDED_BY_PERMISSION;
    std::map<ObjectPlace, TreflectObject> heard_ OSW_GUARDED_BY_PERMISSION;
    unsigned int const since_;
};
