#pragma once

#include <set>
#include <utility>

#include "handler_threads/RunPermission.h"
#include "reflect/notices/ObjectPlace.h"
#include "reflect/notices/UnderWay.h"

class TreflectObserver;

/**
 * A notice that the listed observers of a class are being told, one after the other, which takes as
 * long as they take.
 */
class Notice : public ListedWhileItLives {
public:
    /** Enters `underWay`. Those in `told` need not be told any more. */
    Notice(UnderWay<Notice>& underWay, ObjectPlace place, std::set<TreflectObserver const*> told)
        : place_(std::move(place)), told_(std::move(told)) {
        underWay.push_back(*this);
    }
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
    ObjectPlace const place_;
    std::set<TreflectObserver const*> told_ OSW_GUARDED_BY_PERMISSION;
    bool ended_ OSW_GUARDED_BY_PERMISSION = false;
};
