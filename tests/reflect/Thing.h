// A server object of a class that the test chooses. Used by tests and by the program reflect_actor.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "handler_threads.h"
#include "ipprmi.h"
#include "reflect.h"

/** Makes the class known to this process. Holding the run permission, or before the first broker.
 */
inline TreflectMetaObject& thingClass(unsigned int id) {
    static auto& classes = *new std::map<unsigned int, std::unique_ptr<TreflectMetaClass>>;
    auto& known = classes[id];
    if (!known)
        known = std::make_unique<TreflectMetaClass>("Thing", id,
                                                    std::vector<TreflectMetaClass const*>{},
                                                    std::vector<TreflectMetaClass::Operation>{});
    return *known;
}

/** Tells of its creation and its deletion when it is asked to. */
class Thing : public TreflectServerObject {
public:
    Thing(std::string const& name, unsigned int classId)
        : TreflectServerObject(TipprmiOID(name, NSID_UNIT), nullptr, name), class_(classId) {}

    void come() const { sendCreationEvent(&thingClass(class_)); }
    void go() const { sendDeletionEvent(&thingClass(class_)); }

    unsigned int getServerClassId() const override { return class_; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned int, 0u> ids;
        ids.push_back(class_);
        return ids;
    }

private:
    unsigned int const class_;
};
