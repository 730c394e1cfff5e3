// What a class has: its attributes and operations, as its meta object describes them.
#include "oswrap/Lock.h"
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
    OSWrap::Lock<> const lock(mutex_);
    parameters_[std::move(key)] = std::move(value);
    signature_ = nullptr;
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

std::shared_ptr<TreflectMetaOperation::Signature const> TreflectMetaOperation::signature() const {
    OSWrap::Lock<> const lock(mutex_);
    if (!signature_)
        signature_ = std::make_shared<Signature const>(Signature{typesOf("in"), typesOf("out")});
    return signature_;
}

std::vector<TreflectParameterType> TreflectMetaOperation::argumentTypes() const {
    return signature()->in;
}

std::vector<TreflectParameterType> TreflectMetaOperation::resultTypes() const {
    return signature()->out;
}

std::string TreflectMetaOperation::Signature::inText() const {
    std::string text;
    for (TreflectParameterType const& type : in)
        (text += text.empty() ? "" : ", ") += type.name().empty() ? "?" : type.name();
    return text;
}

std::string TreflectMetaOperation::Signature::mistakeIn(
    TipprmiSequence<TipprmiAny, 0u> const& arguments) const {
    if (in.empty() && out.empty())
        return {};
    unsigned int const count = arguments.getLength();
    if (count != in.size())
        return "not " + std::to_string(count) + (count == 1 ? " argument" : " arguments");
    for (unsigned int i = 0; i < count; ++i) {
        if (in[i].isValid() && !in[i].accepts(arguments[i]))
            return "and argument " + std::to_string(i + 1) + " is something else";
    }
    return {};
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

std::shared_ptr<TreflectValueCheck const> TreflectMetaAttribute::findCheck(
    TreflectValueCheck::Type type, TreflectValueCheck::Use use) const {
    for (auto const& known : checks_) {
        if (known->isOf(type, use))
            return known;
    }
    return nullptr;
}

// Made without the lock, since it is the application that tells the type's name. Threads without
// the run permission may make one each; the first that is kept is everybody's.
std::shared_ptr<TreflectValueCheck const> TreflectMetaAttribute::check(
    TreflectValueCheck::Type type, TreflectValueCheck::Use use) const {
    {
        OSWrap::Lock<> const lock(mutex_);
        if (auto known = findCheck(type, use))
            return known;
    }
    auto const made = std::make_shared<TreflectValueCheck const>(*this, type, use);
    OSWrap::Lock<> const lock(mutex_);
    if (auto known = findCheck(type, use))
        return known;
    return checks_.emplace_back(made);
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
