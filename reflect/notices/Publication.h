#pragma once

#include <set>

#include "handler_threads/RunPermission.h"
#include "reflect/TreflectOrbId.h"
#include "reflect/broker/OngoingRequest.h"
#include "reflect/notices/UnderWay.h"

class TreflectServerObject;

/**
 * A notice on its way to the brokers that subscribed, one after the other, each of which is waited
 * for. It lasts from before the observers of this process are told to the last answer, and lives on
 * the stack of the thread that does that.
 *
 * It is what lets an object be told exactly once to a broker that asks meanwhile what exists: a
 * creation that it is still to get, or has not answered, is not in the answer; nor is an object
 * whose deletion it has answered.
 */
class Publication : public ListedWhileItLives {
public:
    using Subscribers = std::set<TreflectOrbId>;

    /** Enters `underWay`. On the thread that sends. */
    Publication(UnderWay<Publication>& underWay, TreflectServerObject const& object)
        : object_(&object), thread_(OngoingRequest::getThreadInstance()) {
        underWay.push_back(*this);
    }
    Publication(Publication const&) = delete;
    Publication& operator=(Publication const&) = delete;

    bool isOf(TreflectServerObject const* object) const OSW_REQUIRES_PERMISSION {
        return object_ == object;
    }

    /** All of `subscribers` that have not been told are to be told; false when there are none. */
    bool addDue(Subscribers const& subscribers) OSW_REQUIRES_PERMISSION;
    /** A broker subscribed without asking what exists, or cancelled: what counts is who is
     * subscribed when the sending begins. */
    void subscribed(TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION {
        if (!sending_)
            due_.insert(broker);
    }
    void cancelled(TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION {
        if (!sending_)
            due_.erase(broker);
    }
    /** A broker has gone. */
    void forget(TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION { due_.erase(broker); }
    /** Nobody else is told: the object is no more. */
    void end() OSW_REQUIRES_PERMISSION { due_.clear(); }
    /** The object is being destroyed: another may come to be at its address. */
    void forgetObject() OSW_REQUIRES_PERMISSION {
        end();
        object_ = nullptr;
    }

    /** The next one is about to be sent to: it is in `subscriber`. False when all have been. */
    bool next(TreflectOrbId& subscriber) OSW_REQUIRES_PERMISSION;
    /** The broker has yet to get the notice, or to answer it. */
    bool isDue(TreflectOrbId const& broker) const OSW_REQUIRES_PERMISSION {
        return due_.count(broker) != 0 || (isCurrent(broker) && !currentAnswered());
    }
    bool isAnsweredBy(TreflectOrbId const& broker) const OSW_REQUIRES_PERMISSION {
        return isCurrent(broker) ? currentAnswered() : told_.count(broker) != 0;
    }

private:
    bool isCurrent(TreflectOrbId const& broker) const OSW_REQUIRES_PERMISSION {
        return waiting_ && current_ == broker;
    }
    /** The answer may have come though the sending thread does not know it yet. */
    bool currentAnswered() const OSW_REQUIRES_PERMISSION {
        return thread_.deliveries() != deliveriesBefore_;
    }

    TreflectServerObject const* object_ OSW_GUARDED_BY_PERMISSION;
    OngoingRequest const& thread_;
    Subscribers due_ OSW_GUARDED_BY_PERMISSION;
    Subscribers told_ OSW_GUARDED_BY_PERMISSION;
    TreflectOrbId current_ OSW_GUARDED_BY_PERMISSION;
    unsigned int deliveriesBefore_ OSW_GUARDED_BY_PERMISSION = 0;
    bool sending_ OSW_GUARDED_BY_PERMISSION = false;
    bool waiting_ OSW_GUARDED_BY_PERMISSION = false;
};
