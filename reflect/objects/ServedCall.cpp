#include "reflect/objects/ServedCall.h"

#include "handler_threads/WithPermission.h"
#include "logging/Log.h"
#include "reflect/TreflectCallOutcome.h"
#include "reflect/TreflectORB.h"
#include "reflect/broker/ContainErrors.h"

thread_local ServedCall* ServedCall::innermost_ = nullptr;

namespace {

/** Numbers of calls of this process. */
unsigned int latestNumber OSW_GUARDED_BY_PERMISSION = 0;

template <class T>
void append(TipprmiSequence<TipprmiAny, 0u>& values, T const& value) {
    TipprmiAny encoded;
    encoded.insert(value);
    values.push_back(encoded);
}

}  // namespace

void ServedCall::begins(unsigned int classId, unsigned int methodCode) {
    handlerthreads::assertPermission();
    if (life_)
        return;  // the object itself tells of another call
    life_.emplace(*object_);
    TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT);
    bool const isKnown = orb && caller_.value() != 0;
    callerOrb_ = isKnown ? orb->convertId(caller_).value() : object_->orbId().value();
    latestNumber += latestNumber + 1 == 0 ? 2 : 1;
    number_ = latestNumber;
    classId_ = classId;
    methodCode_ = methodCode;
}

void ServedCall::ends(unsigned int classId, unsigned int methodCode,
                      TipprmiSequence<TipprmiAny, 0u> const& results) {
    if (isOf(classId, methodCode) &&
        object_->postObserverAvailable(classId, methodCode ^ TreflectCallOutcome::kMark))
        hasResults_ = containErrors([&] { results_ = results; }, [](char const*) {});
}

void ServedCall::addTo(TipprmiSequence<TipprmiAny, 0u>& values) const {
    append(values, number_);
    append(values, callerOrb_);
}

TipprmiSequence<TipprmiAny, 0u> ServedCall::numbered(
    TipprmiSequence<TipprmiAny, 0u> const& arguments) const {
    TipprmiSequence<TipprmiAny, 0u> values = arguments;
    addTo(values);
    return values;
}

void ServedCall::tellOutcome(TipprmiStream const* response) {
    if (!life_ || life_->ended() || !hasResults_ ||
        !object_->postObserverAvailable(classId_, methodCode_ ^ TreflectCallOutcome::kMark))
        return;
    containErrors([&] { tell(response); },
                  [&](char const* thrown) {
                      REFLECTORB_LOG(
                          3, "REFLECT_observable",
                          "telling what has come of classCode=0x%X,methodCode=%u threw%s", classId_,
                          methodCode_, thrown);
                  });
}

void ServedCall::tell(TipprmiStream const* response) {
    TipprmiExceptionContainer exception;
    if (response) {
        TipprmiStream fromStart(response->msg(), false);
        fromStart >> exception;
    }
    TipprmiSequence<TipprmiAny, 0u> values;
    addTo(values);
    append(values, response != nullptr);
    append(values, exception);
    for (unsigned int i = 0; i < results_.getLength(); ++i)
        values.push_back(results_[i]);
    TreflectObject const source(*object_->getClient());
    object_->TreflectObservable::notifyObservers(source, TreflectObservable::kAfterCalls, classId_,
                                                 methodCode_ ^ TreflectCallOutcome::kMark, values);
}
