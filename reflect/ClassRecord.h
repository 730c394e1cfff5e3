#pragma once

#include <set>
#include <vector>

#include "reflect/TreflectORB.h"

/** What a broker knows of a class: who wants to hear of its objects, and which there are. Guarded
 * by the run permission. */
struct TreflectORB::ClassRecord {
    // In the order of registration, with duplicates. Not owned.
    std::vector<TreflectObserver*> creationObservers;
    std::vector<TreflectObserver*> deletionObservers;
    /** The objects of this process that have been announced. Not owned. */
    std::set<TreflectServerObject const*> objects;
};
