// What a class has: its attributes and operations, as its meta object describes them.
#include "reflect/TreflectAttribute.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"

TreflectMetaMember::TreflectMetaMember(std::string const& name, TreflectMetaObject const* owner)
    : name_(name), owner_(owner) {}

TreflectMetaMember::~TreflectMetaMember() = default;

TreflectMetaOperation::TreflectMetaOperation(std::string const& name,
                                             TreflectMetaObject const* owner, int id)
    : TreflectMetaMember(name, owner), id_(id) {}

TreflectMetaOperation::~TreflectMetaOperation() = default;

void TreflectMetaOperation::registerParameter(std::string key, std::string value) {
    parameters_[std::move(key)] = std::move(value);
}

void TreflectMetaOperation::registerException(unsigned int code, std::string type) {
    exceptions_[code] = std::move(type);
}

TreflectParameterType TreflectMetaOperation::exceptionType(unsigned int code) const {
    auto const described = exceptions_.find(code);
    return typeOf(described == exceptions_.end() ? std::string() : described->second);
}

TreflectParameterType TreflectMetaOperation::typeOf(std::string const& text) const {
    TreflectMetaObject const* const owner = containingMetaObject();
    return owner ? TreflectParameterType(text, owner->types()) : TreflectParameterType(text);
}

std::vector<TreflectParameterType> TreflectMetaOperation::typesOf(char const* direction) const {
    std::vector<TreflectParameterType> types;
    for (;;) {
        auto const described = parameters_.find(direction + std::to_string(types.size()));
        if (described == parameters_.end())
            return types;
        types.push_back(typeOf(described->second));
    }
}

std::vector<TreflectParameterType> TreflectMetaOperation::argumentTypes() const {
    return typesOf("in");
}

std::vector<TreflectParameterType> TreflectMetaOperation::resultTypes() const {
    return typesOf("out");
}

TreflectMetaAttribute::TreflectMetaAttribute(std::string const& name,
                                             TreflectMetaObject const* owner,
                                             TreflectMetaOperation const* get,
                                             TreflectMetaOperation const* set)
    : TreflectMetaAttribute(name, owner, get, set, 1) {}

TreflectMetaAttribute::TreflectMetaAttribute(std::string const& name,
                                             TreflectMetaObject const* owner,
                                             TreflectMetaOperation const* get,
                                             TreflectMetaOperation const* set, int constLength)
    : TreflectMetaMember(name, owner), constLength_(constLength), get_(get), set_(set) {}

TreflectMetaAttribute::~TreflectMetaAttribute() = default;

void TreflectMetaAttribute::forget(TreflectMetaObject const& gone) {
    if (typeMeta_ == &gone)
        typeMeta_ = nullptr;
    for (TreflectMetaOperation const** const operation : {&get_, &set_}) {
        if (*operation && (*operation)->containingMetaObject() == &gone)
            *operation = nullptr;
    }
}

void TreflectMetaAttribute::registerType(TreflectMetaObject* typeMeta) {
    typeMeta_ = typeMeta;
    typeName_ = typeMeta->name();
}

TreflectArrayMetaAttribute::TreflectArrayMetaAttribute(std::string const& name,
                                                       TreflectMetaObject const* owner,
                                                       TreflectMetaOperation const* get,
                                                       TreflectMetaOperation const* set, int length)
    : TreflectMetaAttribute(name, owner, get, set, length) {}

TreflectAttribute* TreflectArrayMetaAttribute::getTied(TreflectObject const* object) const {
    TreflectAttribute* const attribute = TreflectMetaAttribute::getTied(object);
    attribute->setContainerType(TreflectAttribute::kArray);
    return attribute;
}

TreflectSequenceMetaAttribute::TreflectSequenceMetaAttribute(std::string const& name,
                                                             TreflectMetaObject const* owner,
                                                             TreflectMetaOperation const* get,
                                                             TreflectMetaOperation const* set,
                                                             int length)
    : TreflectMetaAttribute(name, owner, get, set, length) {}

TreflectAttribute* TreflectSequenceMetaAttribute::getTied(TreflectObject const* object) const {
    TreflectAttribute* const attribute = TreflectMetaAttribute::getTied(object);
    attribute->setContainerType(TreflectAttribute::kSequence);
    return attribute;
}
