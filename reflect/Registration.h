#pragma once

#include <list>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "reflect/TreflectORB.h"
#include "reflect/TreflectObject.h"

/**
 * Something that tells observers of a class what exists, which takes as long as other brokers take
 * to answer: an observer on its way into the lists, or all that are listed when a broker came up.
 * Notices that arrive meanwhile are remembered, so that nobody is told twice, or of what has gone;
 * and kept for an observer that is not listed yet. It may be removed or destroyed by another
 * thread, or by its own callback. Guarded by the run permission.
 */
class TreflectORB::Registration {
public:
    using UnderWay = std::list<Registration*>;

    /** Enters `underWay`, and leaves it at the end. `observer`: null for all that are listed. */
    Registration(UnderWay& underWay, TreflectObserver* observer);
    ~Registration();
    Registration(Registration const&) = delete;
    Registration& operator=(Registration const&) = delete;

    bool isOf(TreflectObserver const& observer) const { return observer_ == &observer; }
    /** The observer has been removed or is being destroyed. */
    void end() { observer_ = nullptr; }
    bool ended() const { return !observer_; }
    /** A notice for those that are in the list, or else to be kept: then it answers the observer
     * that is told at the end, else null. */
    TreflectObserver* noticed(TreflectObject const& object,
                              std::vector<TreflectObserver*> const& observers);
    /** The object is no more. */
    void gone(TreflectObject const& object);
    /** A broker is asked what it has: it may have given an internal id anew. */
    void asks(TreflectOrbId const& broker);
    /** Whether nobody has been told of an object that somebody else says exists; only once. */
    bool isNews(TreflectObject const& object);
    /** Tells the observer of an object that exists, if that is news. */
    void tell(TreflectObject const& object);
    /** Puts the observer into the list and tells it what was kept for it. */
    void enter(std::vector<TreflectObserver*>& observers);

private:
    /** Broker, namespace, internal id, text of the identifier. The text because an internal id may
     * be an address, which the next object can have while the last is remembered. */
    using Place = std::tuple<unsigned int, NamespaceId, unsigned int, std::string>;

    static Place placeOf(TreflectObject const& object);

    UnderWay& underWay_;
    TreflectObserver* observer_;
    std::set<Place> told_;
    std::set<Place> gone_;
    std::list<TreflectObject> kept_;
};
