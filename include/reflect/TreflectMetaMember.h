#pragma once

#include <string>

#include "oswrap/Export.h"

class TreflectMetaObject;

/** An attribute or an operation of a class: its name and the class that declares it. */
class REFLECTORB_API TreflectMetaMember {
public:
    /** `owner` is not owned; null stands for no class. */
    TreflectMetaMember(std::string const& name, TreflectMetaObject const* owner);
    virtual ~TreflectMetaMember();
    TreflectMetaMember(TreflectMetaMember const&) = delete;
    TreflectMetaMember& operator=(TreflectMetaMember const&) = delete;

    /** Unique among the members of its kind in the class. */
    std::string const& name() const { return name_; }
    /** The class that declares it, not owned; null for none. */
    TreflectMetaObject const* containingMetaObject() const { return owner_; }

private:
    std::string const name_;
    TreflectMetaObject const* const owner_;
};
