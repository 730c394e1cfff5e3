// Attributes and operations that are bound to a handle.
#include "reflect/StubInUse.h"
#include "reflect/TreflectAttribute.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectObservable.h"

// ---- Attributes --------------------------------------------------------------------------------

int TreflectAttribute::error = 4;
TreflectErrorAttribute TreflectAttribute::errorAttribute(nullptr, nullptr);
TreflectErrorOperation TreflectAttribute::errorOperation(nullptr, nullptr);

TreflectAttribute::TreflectAttribute(TreflectMetaAttribute const* meta,
                                     TreflectObject const* object)
    : meta_(meta), object_(object) {}

TreflectAttribute::~TreflectAttribute() {
    delete containedObject_;
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
// comes from a base. A response that says nothing, or of a failure, makes every read of it fail.
void TreflectAttribute::callGet_(TipprmiStream& response) const {
    TreflectObjectStub* const stub = object_->getStub_();
    if (!stub || !meta_->metaOperGet()) {
        response.stopUnmarshalling();
        return;
    }
    StubInUse const inUse(*stub);
    unsigned int const cc = meta_->containingMetaObject()->getClassId();
    auto const mc = static_cast<unsigned int>(meta_->metaOperGet()->id());
    TipprmiStream request(kUsualSize);
    object_->prepareRequestStream_(true, cc, mc, request);
    object_->dispatch(true, cc, mc, request, response);
    stub->prepareResponseStream(true, response);
}

bool TreflectAttribute::canSet_() const {
    bool const ofElement = hasIndex_() && containerType_ != kPlain;
    return !error_ && meta_->metaOperSet() && object_->getStub_() && !ofElement;
}

void TreflectAttribute::startSet_(TipprmiStream& request) const {
    object_->prepareRequestStream_(true, meta_->containingMetaObject()->getClassId(),
                                   static_cast<unsigned int>(meta_->metaOperSet()->id()), request);
}

TipprmiResult<void> TreflectAttribute::finishSet_(TipprmiStream& request) const {
    TreflectObjectStub& stub = *object_->getStub_();
    StubInUse const inUse(stub);
    TipprmiStream response(kUsualSize);
    object_->dispatch(true, meta_->containingMetaObject()->getClassId(),
                      static_cast<unsigned int>(meta_->metaOperSet()->id()), request, response);
    stub.prepareResponseStream(true, response);
    if (response.hasUnmarshallingFailed())
        return failureOf_(response);
    return {};
}

TipprmiFailure TreflectAttribute::failureOf_(TipprmiStream const& response) {
    if (response.empty())
        return TipprmiFailure(TipprmiFailure::kNotServed);
    TipprmiStream fromStart(response.msg(), false);
    TipprmiExceptionContainer container;
    fromStart >> container;
    TipprmiGeneralException general(TipprmiFailure::kUnreadable);
    if (container.getExceptionType() == TipprmiGeneralException::getExceptionClassType())
        container.getExceptionData(general);
    return TipprmiFailure(general.code());
}

template int TreflectAttribute::get(TreflectObject& value) const;

// ---- Navigation through the object that an attribute holds -------------------------------------

bool TreflectAttribute::updateContainedObject() {
    if (!meta_ || !meta_->typeMeta())
        return false;
    bool const isNew = !containedObject_;
    if (isNew)
        containedObject_ = new TreflectObject;
    if (isNew || hasIndex_())
        get(*containedObject_);
    return true;
}

TreflectAttribute& TreflectAttribute::attribute(std::string const& name) {
    if (updateContainedObject()) {
        if (TreflectMetaAttribute const* const found = meta_->typeMeta()->metaAttribute(name))
            return *found->getTied(containedObject_);
    }
    return errorAttribute;
}

TreflectOperation& TreflectAttribute::operation(std::string const& name) {
    if (updateContainedObject()) {
        if (TreflectMetaOperation const* const found = meta_->typeMeta()->metaOperation(name))
            return *found->getTied(containedObject_);
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

TreflectOperation::TreflectOperation(TreflectMetaOperation const* meta,
                                     TreflectObject const* object)
    : meta_(meta), object_(object) {}

TreflectOperation::~TreflectOperation() = default;

int TreflectOperation::call() {
    if (error_)
        return error;
    constexpr int kUsualSize = 100;
    TipprmiStream request(kUsualSize);
    TipprmiStream response(kUsualSize);
    unsigned int const cc = meta_->containingMetaObject()->getClassId();
    auto const mc = static_cast<unsigned int>(meta_->id());
    object_->prepareRequestStream_(true, cc, mc, request);
    object_->dispatch(true, cc, mc, request, response);
    return 0;
}

bool TreflectOperation::preObserve(TreflectObserver* observer) {
    if (error_)
        return false;
    object_->registerObserver(TreflectObservable::kBeforeCalls, meta_, observer);
    return true;
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
