#pragma once

#include <list>
#include <set>
#include <utility>

#include "handler_threads/RunPermission.h"
#include "reflect/notices/ObjectPlace.h"

class TreflectObserver;

/**
 * A notice that the listed observers of a class are being told, one after the other, which takes as
 * long as they take.
 */
class Notice {
public:
    using UnderWay = std::list<Notice*>;

    /** Enters `underWay`, and leaves it at the end. Those in `told` need not be told any more. */
    Notice(UnderWay& underWay, ObjectPlace place, std::set<TreflectObserver const*> told)
        : underWay_(underWay), place_(std::move(place)), told_(std::move(told)) {
        underWay_.push_back(this);
    }
    ~Notice() { underWay_.remove(this); }
    Notice(Notice const&) = delete;
    Notice& operator=(Notice const&) = delete;

    ObjectPlace const& place() const { return place_; }
    bool isToldTo(TreflectObserver const* observer) const OSW_REQUIRES_PERMISSION {
        return told_.count(observer) != 0;
    }
    /** The observer is told, in the course of this notice or of something else; false when it was
     * before. */
    bool begin(TreflectObserver const& observer) OSW_REQUIRES_PERMISSION {
        return told_.insert(&observer).second;
    }
    /** Nobody else is told: the object is no more. */
    void end() OSW_REQUIRES_PERMISSION { ended_ = true; }
    bool ended() const OSW_REQUIRES_PERMISSION { return ended_; }
    /** The observer is being destroyed: another may come to be at its address. */
    void forget(TreflectObserver const& observer) OSW_REQUIRES_PERMISSION {
        told_.erase(&observer);
    }

private:
    UnderWay& underWay_;
    ObjectPlace const place_;
    std::set<TreflectObserver const*> told_ OSW_GUARDED_BY_PERMISSION;
    bool ended_ OSW_GUARDED_BY_PERMISSION = false;
};
