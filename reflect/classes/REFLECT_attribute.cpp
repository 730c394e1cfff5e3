// Attributes and operations that are bound to a handle.
#include <optional>

#include "ipprmi/CallOutcome.h"
#include "reflect/TreflectAttribute.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectObservable.h"
#include "reflect/TreflectParameterType.h"
#include "reflect/TreflectTieds.h"
#include "reflect/objects/StubInUse.h"

namespace {

/** Knows of a handle that other threads may assign or destroy whether it still leads where it did.
 */
class HandleInUse {
public:
    explicit HandleInUse(TreflectObject const& handle)
        : handle_(handle), stub_(handle.getStub_()), mark_(new Mark) {
        TreflectTieds::instance()->adoptTied(&handle_, mark_);
    }
    ~HandleInUse() { TreflectTieds::instance()->untie(&handle_, mark_); }
    HandleInUse(HandleInUse const&) = delete;
    HandleInUse& operator=(HandleInUse const&) = delete;

    bool isUnchanged() const {
        return TreflectTieds::instance()->isTied(&handle_, mark_) && handle_.getStub_() == stub_;
    }

private:
    class Mark final : public TreflectTieds::TiedBase {};

    TreflectObject const& handle_;
    TreflectObjectStub const* const stub_;
    OSWrap::SmartPointer<TreflectTieds::TiedBase> const mark_;
};

/**
 * Calls an operation through a handle; whether the object has served the call. Other threads may
 * assign or destroy the handle whenever the call waits, so it is the stub that is held on to. A
 * stub that must look for its object first waits even before the call is sent: the handle, whose
 * `dispatch` a derived class may have made its own, is asked only if it is still there.
 */
bool callMember(TreflectObject const& object, TreflectMetaObject const* declaring,
                TreflectMetaOperation const& operation, InParamHook const& arguments,
                TipprmiStream& response) {
    TreflectObjectStub* const stub = object.getStub_();
    if (!stub || !declaring)
        return false;
    StubInUse const inUse(*stub);
    std::optional<HandleInUse> searching;
    if (!stub->isConnected())
        searching.emplace(object);
    unsigned int const cc = declaring->getClassId();
    auto const mc = static_cast<unsigned int>(operation.id());
    TipprmiStream request(TipprmiStream::kUsualSize);
    stub->prepareRequestStream(true, cc, mc, request);
    arguments.marshall(request);
    // A request that is too large is not sent.
    if (request.hasMarshallingFailed())
        return false;
    bool const bypassed = searching && !searching->isUnchanged();
    searching.reset();
    return bypassed ? stub->dispatch(true, cc, mc, request, response) == 1
                    : object.dispatch(true, cc, mc, request, response);
}

/** The same for an operation of an attribute; whether the call went well. `response` is then about
 * to yield what follows the exception container. */
bool callForValue(TreflectObject const& object, TreflectMetaObject const* declaring,
                  TreflectMetaOperation const& operation, InParamHook const& arguments,
                  TipprmiStream& response) {
    bool const served = callMember(object, declaring, operation, arguments, response);
    bool const succeeded = static_cast<bool>(readOutcome(response));
    if (served)
        return succeeded;
    if (succeeded)
        response.clear();
    response.stopUnmarshalling();
    return false;
}

}  // namespace

// ---- Attributes --------------------------------------------------------------------------------

int TreflectAttribute::error = 4;
TreflectErrorAttribute TreflectAttribute::errorAttribute(nullptr, nullptr);
TreflectErrorOperation TreflectAttribute::errorOperation(nullptr, nullptr);

TreflectAttribute::TreflectAttribute(TreflectMetaAttribute const* meta,
                                     TreflectObject const* object)
    : meta_(meta), object_(object) {}

TreflectAttribute::~TreflectAttribute() = default;

std::shared_ptr<TreflectValueCheck const> TreflectAttribute::check_(
    std::shared_ptr<Check const>& known, Check::Type type, Check::Use use) const {
    lastCheck_ = &known;
    if (!known || !known->isOf(type, use))
        known = meta_ ? meta_->check(type, use) : nullptr;
    return known && known->isNeeded() ? known : nullptr;
}

std::string TreflectAttribute::mistake() const {
    Check const* const last = lastCheck_ ? lastCheck_->get() : nullptr;
    return last && last->isNeeded() ? last->mistake() : std::string();
}

int TreflectAttribute::constLength() const {
    return meta_ ? meta_->constLength() : 0;
}

void TreflectAttribute::setContainerType(TreflectAttributeType type) {
    if (!error_)
        containerType_ = type;
}

TreflectAttribute& TreflectAttribute::operator[](int i) {
    if (!error_)
        index_ = i;
    return *this;
}

void TreflectAttribute::clearIndex() {
    if (!error_)
        index_ = kNoIndex;
}

TreflectOperation& TreflectAttribute::operGet() {
    if (!operGet_ && meta_ && meta_->metaOperGet())
        operGet_ = meta_->metaOperGet()->getTied(object_);
    return operGet_ ? *operGet_ : errorOperation;
}

TreflectOperation& TreflectAttribute::operSet() {
    if (!operSet_ && meta_ && meta_->metaOperSet())
        operSet_ = meta_->metaOperSet()->getTied(object_);
    return operSet_ ? *operSet_ : errorOperation;
}

// The class code is that of the class which has the attribute in its tables, even if the operation
// comes from a base.
bool TreflectAttribute::callGet_(TipprmiStream& response) const {
    if (meta_->metaOperGet())
        return callForValue(*object_, meta_->containingMetaObject(), *meta_->metaOperGet(),
                            TipprmiArguments<>(), response);
    response.stopUnmarshalling();
    return false;
}

TipprmiResult<void> TreflectAttribute::callSet_(InParamHook const& value) const {
    bool const ofElement = hasIndex_() && containerType_ != kPlain;
    if (!meta_->metaOperSet() || ofElement)
        return TipprmiFailure();
    TipprmiStream response = TipprmiStream::withoutBuffer_();
    if (!callForValue(*object_, meta_->containingMetaObject(), *meta_->metaOperSet(), value,
                      response))
        return failureOf_(response);
    return {};
}

TipprmiFailure TreflectAttribute::failureOf_(TipprmiStream const& response) {
    TipprmiStream fromStart(response.msg(), false);
    TipprmiResult<void> const outcome = readOutcome(fromStart);
    // When the call itself went well, it is the value that could not be read.
    return TipprmiFailure(outcome ? TipprmiFailure::kUnreadable : outcome.code());
}

template int TreflectAttribute::get(TreflectObject& value) const;

namespace {

/** A text that belongs to nobody yet: more may have to be read before it is known to be the value.
 */
struct Text {
    std::string bytes;
    bool isRead = false;

    /** The caller's; null when nothing was read. */
    char* release() const {
        if (!isRead)
            return nullptr;
        char* const copy = new char[bytes.size() + 1]();
        bytes.copy(copy, bytes.size());
        return copy;
    }
};

TipprmiStream& operator>>(TipprmiStream& stream, Text& text) {
    text.isRead = true;
    return stream >> text.bytes;
}

}  // namespace

template <>
struct TreflectTypeName<Text> : TreflectTypeName<std::string> {};

template <>
int TreflectAttribute::get(char*& value) const {
    Text text;
    int const result = get(text);
    if (result == 0 && text.isRead)
        value = text.release();
    return result;
}

template <>
TipprmiResult<char*> TreflectAttribute::fetch() const {
    TipprmiResult<Text> const text = fetch<Text>();
    if (!text)
        return TipprmiFailure(text.code());
    return text.value().release();
}

// ---- Navigation through the object that an attribute holds -------------------------------------

bool TreflectAttribute::updateContainedObject() {
    if (!meta_ || !meta_->typeMeta())
        return false;
    // Its class may be one that nobody has looked for yet.
    meta_->typeMeta()->completeMetaInformation();
    bool const isNew = !containedObject_;
    if (isNew)
        containedObject_ = std::make_shared<std::shared_ptr<TreflectObject>>(
            std::shared_ptr<TreflectObject>(new TreflectObject));  // of the handles' pool
    std::shared_ptr<TreflectObject> const contained = *containedObject_;
    std::weak_ptr<void const> const life = containedObject_;
    if (isNew || hasIndex_())
        get(*contained);
    return !life.expired() && meta_->typeMeta();
}

TreflectAttribute& TreflectAttribute::attribute(std::string const& name) {
    if (updateContainedObject()) {
        if (TreflectMetaAttribute const* const found = meta_->typeMeta()->metaAttribute(name))
            return *found->getTied(containedObject_->get());
    }
    return errorAttribute;
}

TreflectOperation& TreflectAttribute::operation(std::string const& name) {
    if (updateContainedObject()) {
        if (TreflectMetaOperation const* const found = meta_->typeMeta()->metaOperation(name))
            return *found->getTied(containedObject_->get());
    }
    return errorOperation;
}

TreflectErrorAttribute::TreflectErrorAttribute(TreflectMetaAttribute const* meta,
                                               TreflectObject const* object)
    : TreflectAttribute(meta, object) {
    markAsError();
}

TreflectErrorAttribute::~TreflectErrorAttribute() = default;

TreflectOperation& TreflectErrorAttribute::operation(std::string const&) {
    return errorOperation;
}

TreflectAttribute& TreflectErrorAttribute::attribute(std::string const&) {
    return *this;
}

// ---- Operations --------------------------------------------------------------------------------

int TreflectOperation::error = 5;

namespace {

/** The arguments of a call, as values without types. */
class AnyArguments final : public InParamHook {
public:
    explicit AnyArguments(TipprmiSequence<TipprmiAny, 0u> const& values) : values_(values) {}
    void marshall(TipprmiStream& request) const override {
        for (unsigned int i = 0; i < values_.getLength(); ++i)
            values_[i].writeBare(request);
    }

private:
    TipprmiSequence<TipprmiAny, 0u> const& values_;
};

/** The values that are left in `response`, of the types that the operation tells. */
TipprmiResult<TipprmiSequence<TipprmiAny, 0u>> splitResults(
    std::vector<TreflectParameterType> const& types, TipprmiStream& response) {
    TipprmiSequence<TipprmiAny, 0u> results;
    TipprmiAny value;
    bool known = !types.empty();
    for (std::size_t i = 0; known && i < types.size(); ++i) {
        known = types[i].isValid();
        if (known && !types[i].take(response, value))
            return TipprmiFailure(TipprmiFailure::kUnreadable);
        if (known)
            results.push_back(value);
    }
    if (response.getUnreadSize() == 0)
        return results;
    // Where the types end that the operation tells, there is nothing more.
    if (known || !value.takeRest(response))
        return TipprmiFailure(TipprmiFailure::kUnreadable);
    results.push_back(value);
    return results;
}

}  // namespace

TreflectOperation::TreflectOperation(TreflectMetaOperation const* meta,
                                     TreflectObject const* object)
    : meta_(meta), object_(object) {}

TreflectOperation::~TreflectOperation() = default;

int TreflectOperation::call() {
    if (error_)
        return error;
    TipprmiStream response = TipprmiStream::withoutBuffer_();
    callMember(*object_, meta_->containingMetaObject(), *meta_, TipprmiArguments<>(), response);
    return 0;
}

int TreflectOperation::call(TipprmiSequence<TipprmiAny, 0u> const& in,
                            TipprmiSequence<TipprmiAny, 0u>& out) {
    TipprmiResult<TipprmiSequence<TipprmiAny, 0u>> const results = invoke(in);
    if (!results)
        return error;
    out = results.value();
    return 0;
}

bool TreflectOperation::isMistaken(TreflectMetaOperation::Signature const& signature,
                                   TipprmiSequence<TipprmiAny, 0u> const& in) {
    mistake_ = signature.mistakeIn(in);
    if (mistake_.empty())
        return false;
    TreflectMetaObject const* const owner = meta_->containingMetaObject();
    std::string const className = owner ? owner->name() : std::string();
    REFLECTORB_LOG_LIMITED(meta_->mistakes_, 3, "REFLECT_attribute",
                           "operation \"%s\" of class \"%s\" takes (%s), %s", meta_->name().c_str(),
                           className.c_str(), signature.inText().c_str(), mistake_.c_str());
    mistake_ = "operation \"" + meta_->name() + "\" of class \"" + className + "\" takes (" +
               signature.inText() + "), " + mistake_;
    return true;
}

TipprmiResult<TipprmiSequence<TipprmiAny, 0u>> TreflectOperation::invoke(
    TipprmiSequence<TipprmiAny, 0u> const& in) {
    if (error_)
        return TipprmiFailure();
    TreflectMetaOperation const& meta = *meta_;  // outlasts this operation
    auto const signature = meta.signature();
    if (isMistaken(*signature, in))
        return TipprmiFailure(TipprmiFailure::kMismatch);
    TipprmiStream response = TipprmiStream::withoutBuffer_();
    bool const served =
        callMember(*object_, meta.containingMetaObject(), meta, AnyArguments(in), response);
    TipprmiResult<void> const outcome = readOutcome(response);
    if (!served || !outcome)
        return TipprmiFailure(outcome ? TipprmiFailure::kNotServed : outcome.code());
    return splitResults(signature->out, response);
}

bool TreflectOperation::preObserve(TreflectObserver* observer) {
    if (error_)
        return false;
    object_->registerObserver(TreflectObservable::kBeforeCalls, meta_, observer);
    return true;
}

bool TreflectOperation::guard(TreflectObserver* observer) {
    TreflectObjectStub const* const stub = error_ ? nullptr : object_->getStub_();
    return stub && stub->registerGuard(meta_, observer);
}

unsigned int TreflectOperation::removeLostGuards() {
    TreflectObjectStub const* const stub = error_ ? nullptr : object_->getStub_();
    return stub ? stub->removeLostGuards(meta_) : 0;
}

bool TreflectOperation::postObserve(TreflectObserver* observer) {
    if (error_)
        return false;
    object_->registerObserver(TreflectObservable::kAfterCalls, meta_, observer);
    return true;
}

void TreflectOperation::removeObserver(TreflectObserver* observer) {
    if (!error_)
        object_->removeObserver(meta_, observer);
}

TreflectErrorOperation::TreflectErrorOperation(TreflectMetaOperation const* meta,
                                               TreflectObject const* object)
    : TreflectOperation(meta, object) {
    markAsError();
}

TreflectErrorOperation::~TreflectErrorOperation() = default;
