#pragma once

#include <functional>
#include <vector>

#include "reflect/TreflectClassDescription.h"
#include "reflect/TreflectMetaClass.h"

/** What a LearnedClass is made of, which outlasts its tables. */
struct KeptDescription {
    TreflectClassDescription const description;
};

/**
 * A class as another process has described it, in a sound description. It is not in the
 * InterfaceRepository: this process does not know the class, it knows of it. So there may be
 * several of one class id. Built and used under the run permission.
 */
class LearnedClass final : private KeptDescription, public TreflectMetaClass {
public:
    /** `bases`: those that the description names, in its order, complete. The class is complete at
     * once. */
    LearnedClass(TreflectClassDescription const& described,
                 std::vector<TreflectMetaClass const*> const& bases);

    TreflectClassDescription const& described() const { return description; }
    /** Asks for the classes of values, of which null is unknown. */
    void setValueClasses(std::function<TreflectMetaObject*(unsigned int classId)> const& find);
    using TreflectMetaClass::isWhole;
};
