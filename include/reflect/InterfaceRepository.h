#pragma once

#include <map>
#include <vector>

#include "oswrap/Export.h"

class TreflectMetaObject;

/**
 * The process's meta objects by class id. Made on first use and never destroyed, so that meta
 * objects may be static objects. `instance` may be called by any thread; the rest takes no lock:
 * classes are registered while the program starts and found under the run permission.
 */
class REFLECTORB_API InterfaceRepository {
public:
    static InterfaceRepository* instance();

    /** True. A class id that is taken stays with the meta object that has it. */
    bool registerInterface(TreflectMetaObject* metaObject);
    /** Takes out the entry of the meta object's class id, whichever object it holds; true. */
    bool unregisterInterface(TreflectMetaObject* metaObject);
    /** The meta object of a class, complete with its members; null, and a line at level 3, when the
     * class is unknown here. */
    TreflectMetaObject* findInterface(unsigned int classId) const;
    /** All class ids, in ascending order. */
    std::vector<unsigned int> getIfIds() const;

private:
    InterfaceRepository() = default;
    ~InterfaceRepository() = delete;

    std::map<unsigned int, TreflectMetaObject*> interfaces_;  // not owned
};
