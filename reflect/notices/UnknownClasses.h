#pragma once

#include <map>
#include <set>

#include "handler_threads/RunPermission.h"
#include "reflect/TreflectOrbId.h"
#include "reflect/notices/NoticeKind.h"
#include "reflect/notices/Publication.h"

/**
 * Which brokers subscribed to classes that this broker has no record of, as nothing of them was
 * announced or observed here. They are kept apart from the records, and by broker: a broker may
 * name any number of classes, which is to cost nobody else anything.
 */
class UnknownClasses {
public:
    /** As many classes a broker may have subscribed to, of those that are unknown here. */
    static constexpr std::size_t kMostOfBroker = 1024;

    /** False when the broker has subscribed to too many. */
    bool add(NoticeKind kind, unsigned int classId,
             TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION;
    /** It cancelled one kind of notices, which ends both. */
    void remove(unsigned int classId, TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION;
    /** A broker has gone. */
    void forget(TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION { brokers_.erase(broker); }

    struct Subscribers {
        Publication::Subscribers creations, deletions;
    };
    Subscribers of(unsigned int classId) const OSW_REQUIRES_PERMISSION;
    /** The class is known from now on. */
    void remove(unsigned int classId) OSW_REQUIRES_PERMISSION;
    /** All of them, by class id. */
    std::map<unsigned int, Subscribers> all() const OSW_REQUIRES_PERMISSION;

private:
    /** The classes that a broker subscribed to. */
    struct Classes {
        std::set<unsigned int> creations, deletions;

        std::set<unsigned int>& of(NoticeKind kind) {
            return kind == NoticeKind::Creation ? creations : deletions;
        }
        void remove(unsigned int classId) {
            creations.erase(classId);
            deletions.erase(classId);
        }
    };

    std::map<TreflectOrbId, Classes> brokers_ OSW_GUARDED_BY_PERMISSION;
};
