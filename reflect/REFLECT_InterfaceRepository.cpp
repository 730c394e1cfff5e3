#include "logging/Log.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/TreflectMetaObject.h"

// Meta objects are static objects of other files, built before this file's own and destroyed after
// them: hence made when first asked for, and never destroyed.
InterfaceRepository* InterfaceRepository::instance() {
    static InterfaceRepository* const repository = new InterfaceRepository;
    return repository;
}

bool InterfaceRepository::registerInterface(TreflectMetaObject* metaObject) {
    interfaces_.emplace(metaObject->getClassId(), metaObject);
    return true;
}

bool InterfaceRepository::unregisterInterface(TreflectMetaObject* metaObject) {
    interfaces_.erase(metaObject->getClassId());
    return true;
}

TreflectMetaObject* InterfaceRepository::findInterface(unsigned int classId) const {
    auto const found = interfaces_.find(classId);
    if (found == interfaces_.end()) {
        REFLECTORB_LOG(3, "REFLECT_InterfaceRepository",
                       "InterfaceRepository::findInterface(0x%X) Meta-information CANNOT BE FOUND",
                       classId);
        return nullptr;
    }
    found->second->completeMetaInformation();
    return found->second;
}

std::vector<unsigned int> InterfaceRepository::getIfIds() const {
    std::vector<unsigned int> ids;
    for (auto const& entry : interfaces_)
        ids.push_back(entry.first);
    return ids;
}
