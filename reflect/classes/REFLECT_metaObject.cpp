#include <memory>

#include "logging/Log.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectORB.h"

namespace {

constexpr char kSource[] = "REFLECT_metaObject";

}  // namespace

TreflectMetaObject::TreflectMetaObject(std::string const& name, unsigned int classId)
    : name_(name), classId_(classId) {
    InterfaceRepository::instance()->built(this);
    InterfaceRepository::instance()->registerInterface(this);
}

TreflectMetaObject::TreflectMetaObject(Unlisted, std::string const& name, unsigned int classId)
    : name_(name), classId_(classId), listed_(false) {
    InterfaceRepository::instance()->built(this);
}

TreflectMetaObject::~TreflectMetaObject() {
    if (listed_)
        InterfaceRepository::instance()->unregisterInterface(this);
    InterfaceRepository::instance()->destroyed(this);
    for (auto const& attribute : attributes_)
        delete attribute.second;
    for (auto const& operation : operations_)
        delete operation.second;
}

bool TreflectMetaObject::isBuilt(TreflectMetaObject const* metaObject) {
    return InterfaceRepository::instance()->isBuilt(metaObject);
}

// Static objects of several files are destroyed in no fixed order.
void TreflectMetaObject::forget(TreflectMetaObject const& gone) {
    auto* const other = const_cast<TreflectMetaObject*>(&gone);
    if (parents_.erase(other) != 0)
        loseBase();
    children_.erase(other);
    for (auto const& attribute : attributes_)
        attribute.second->forget(gone);
}

// Each is gone through once, however many ways lead to it.
void TreflectMetaObject::loseBase() {
    if (!whole_)
        return;
    whole_ = false;
    for (TreflectMetaObject* const child : children_)
        child->loseBase();
}

std::string const& TreflectMetaObject::name() const {
    return name_;
}

bool TreflectMetaObject::isA(TreflectMetaObject const* other) const {
    if (this == other)
        return true;
    for (TreflectMetaObject const* const parent : parents_) {
        if (parent->isA(other))
            return true;
    }
    return false;
}

TreflectMetaOperation const* TreflectMetaObject::metaOperation(std::string const& name) const {
    TreflectMetaOperation const* const found = metaOperation_(name);
    if (!found)
        REFLECTORB_LOG(3, kSource,
                       "TreflectMetaObject(%s)::metaOperation(%s) NOT found, returning 0",
                       this->name().c_str(), name.c_str());
    return found;
}

TreflectMetaOperation const* TreflectMetaObject::metaOperation_(std::string const& name) const {
    if (auto const own = operations_.find(name); own != operations_.end())
        return own->second;
    for (TreflectMetaObject const* const parent : parents_) {
        if (TreflectMetaOperation const* const found = parent->metaOperation_(name))
            return found;
    }
    return nullptr;
}

// Asks the bases aloud: each class that was searched leaves its line.
TreflectMetaAttribute const* TreflectMetaObject::metaAttribute(std::string const& name) const {
    if (auto const own = attributes_.find(name); own != attributes_.end())
        return own->second;
    for (TreflectMetaObject const* const parent : parents_) {
        if (TreflectMetaAttribute const* const found = parent->metaAttribute(name))
            return found;
    }
    REFLECTORB_LOG(3, kSource, "TreflectMetaObject::metaAttribute(%s) NOT found, returning 0",
                   name.c_str());
    return nullptr;
}

TreflectMetaAttribute* TreflectMetaObject::ownAttribute(std::string const& name) const {
    auto const own = attributes_.find(name);
    return own == attributes_.end() ? nullptr : own->second;
}

void TreflectMetaObject::operationList(std::list<TreflectMetaOperation*>& out) const {
    for (auto const& own : operations_)
        out.push_back(own.second);
    for (TreflectMetaObject const* const parent : parents_)
        parent->operationList(out);
}

void TreflectMetaObject::attributeList(std::list<TreflectMetaAttribute*>& out) const {
    for (auto const& own : attributes_)
        out.push_back(own.second);
    for (TreflectMetaObject const* const parent : parents_)
        parent->attributeList(out);
}

bool TreflectMetaObject::registerParent(TreflectMetaObject* base) {
    InterfaceRepository::instance()->link(this, base);
    return true;
}

void TreflectMetaObject::linkTo(TreflectMetaObject* base) {
    parents_.insert(base);
    base->registerChild(this);
}

bool TreflectMetaObject::registerChild(TreflectMetaObject* derived) {
    children_.insert(derived);
    return true;
}

void TreflectMetaObject::registerOperation(TreflectMetaOperation* operation) {
    std::unique_ptr<TreflectMetaOperation> owned(operation);
    operations_[operation->name()] = operation;
    owned.release();
}

bool TreflectMetaObject::registerType(std::string const& definition) {
    if (types_.add(definition))
        return true;
    REFLECTORB_LOG(3, kSource, "class \"%s\": \"%s\" is no type with a name", name().c_str(),
                   definition.c_str());
    return false;
}

void TreflectMetaObject::registerAttribute(TreflectMetaAttribute* attribute) {
    std::unique_ptr<TreflectMetaAttribute> owned(attribute);
    attributes_[attribute->name()] = attribute;
    owned.release();
}

void TreflectMetaObject::completeMetaInformationHelper(MetaOpData const* operations,
                                                       unsigned int operationCount,
                                                       MetaAttrData const* attributes,
                                                       unsigned int attributeCount) {
    if (!operations || !attributes) {
        REFLECTORB_LOG(3, kSource, "Invalid meta information for meta object \"%s\"",
                       name().c_str());
        return;
    }
    for (unsigned int i = 0; i < operationCount; ++i)
        registerOperation(new TreflectMetaOperation(operations[i].name, this, operations[i].id));
    for (unsigned int i = 0; i < attributeCount; ++i) {
        std::string const attribute = attributes[i].name;
        TreflectMetaOperation const* const get = getOperationOf(attribute);
        if (!get)
            return;
        registerAttribute(
            new TreflectMetaAttribute(attribute, this, get, metaOperation_("set" + attribute)));
    }
}

TreflectMetaOperation const* TreflectMetaObject::getOperationOf(
    std::string const& attribute) const {
    TreflectMetaOperation const* const get = metaOperation_("get" + attribute);
    if (!get)
        REFLECTORB_LOG(3, kSource,
                       "no get operation registered for attribute \"%s\" of class \"%s\"",
                       attribute.c_str(), name().c_str());
    return get;
}

bool TreflectMetaObject::observeCreations(TreflectObserver* observer, bool plusExisting) {
    TreflectORB* const orb = observer ? TreflectORB::getInstance(NSID_UNIT) : nullptr;
    return orb && orb->observeCreations(getClassId(), *observer, plusExisting);
}

bool TreflectMetaObject::observeDeletions(TreflectObserver* observer) {
    TreflectORB* const orb = observer ? TreflectORB::getInstance(NSID_UNIT) : nullptr;
    return orb && orb->observeDeletions(getClassId(), *observer);
}

void TreflectMetaObject::endCreations(TreflectObserver* observer) {
    if (TreflectORB* const orb = observer ? TreflectORB::getInstance(NSID_UNIT) : nullptr)
        orb->endCreations(getClassId(), *observer);
}

void TreflectMetaObject::endDeletions(TreflectObserver* observer) {
    if (TreflectORB* const orb = observer ? TreflectORB::getInstance(NSID_UNIT) : nullptr)
        orb->endDeletions(getClassId(), *observer);
}

void TreflectMetaObject::removeObserver(TreflectObserver* observer) {
    if (TreflectORB* const orb = observer ? TreflectORB::getInstance(NSID_UNIT) : nullptr)
        orb->removeObserver(getClassId(), *observer);
}
