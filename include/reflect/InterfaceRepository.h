#pragma once

#include <atomic>
#include <map>
#include <vector>

#include "oswrap/Export.h"
#include "oswrap/Mutex.h"

class TreflectMetaObject;

/**
 * The process's meta objects by class id. Made on first use and never destroyed, so that meta
 * objects may be static objects. Any thread, but for what a meta object itself demands: it is
 * completed, used and, once the program's work has begun, destroyed under the run permission.
 *
 * A shared object that is opened while the program runs may bring a meta object of its own for a
 * class that is known already. The first one stays; when the shared object is closed, the one that
 * is left is found again.
 */
class REFLECTORB_API InterfaceRepository {
public:
    /** The one of this process; never null. Any thread. */
    static InterfaceRepository* instance();

    /** True. A class id that is taken stays with the meta object that has it; when the two have
     * different names that is a mistake, and was logged at level 3 when the second was built. */
    bool registerInterface(TreflectMetaObject* metaObject);
    /** Takes out the entry of the meta object's class id, whichever object it holds; true. */
    bool unregisterInterface(TreflectMetaObject* metaObject);
    /** The meta object of a class, complete with its members; null, and a line at level 3, when the
     * class is unknown here. */
    TreflectMetaObject* findInterface(unsigned int classId) const;
    /** The same in silence. */
    TreflectMetaObject* findInterface_(unsigned int classId) const;
    /** All class ids, in ascending order. */
    std::vector<unsigned int> getIfIds() const;

    /** For the library: has the brokers deleted at the exit of the process before any meta object
     * that has been built by now is destroyed. Does nothing as long as there is no broker. */
    void keepForBrokers_();

private:
    friend class TreflectMetaObject;

    InterfaceRepository() = default;
    ~InterfaceRepository() = delete;

    bool isBuilt(TreflectMetaObject const* metaObject) const;
    /** A meta object is there, and is linked to those that have been waiting for it. */
    void built(TreflectMetaObject* metaObject);
    /** Logs it when a class of another name has the class id already. */
    void tellSharedId(TreflectMetaObject const& newcomer) const;
    /** A meta object goes: nobody keeps a pointer to it. */
    void destroyed(TreflectMetaObject* metaObject);
    /** Links a meta object to its base, now or as soon as the base is built. */
    void link(TreflectMetaObject* derived, TreflectMetaObject* base);
    /** The one that takes the place of a meta object which goes with its shared object; or null. */
    TreflectMetaObject* successorOf(TreflectMetaObject* metaObject) const OSW_REQUIRES(mutex_);

    mutable OSWrap::Mutex mutex_;  // a leaf lock
    // None is owned.
    std::map<unsigned int, TreflectMetaObject*> interfaces_ OSW_GUARDED_BY(mutex_);
    /** All that are there, in the order in which they were built. */
    std::vector<TreflectMetaObject*> built_ OSW_GUARDED_BY(mutex_);
    /** By bases that are yet to be built, those that are derived from them. */
    std::multimap<TreflectMetaObject const*, TreflectMetaObject*> awaited_ OSW_GUARDED_BY(mutex_);
    std::atomic<bool> unkept_{true};  // keepForBrokers_ has something to do
};
