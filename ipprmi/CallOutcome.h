#pragma once

#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiResult.h"

/** Reads out of the exception container of a failed call's response why the call failed. The
 * container's type is not 0. */
inline TipprmiFailure failureIn(TipprmiExceptionContainer& container) {
    TipprmiGeneralException general(TipprmiFailure::kUnreadable);
    if (container.getExceptionType() == TipprmiGeneralException::getExceptionClassType())
        container.getExceptionData(general);
    return TipprmiFailure(general.code());
}

/** Reads the head of a response: success, and its results are next in `response`; or why the call
 * failed. Behind a general exception, and in an empty response, which stands for none, every
 * further read fails; behind an exception of another type there may be results. */
inline TipprmiResult<void> readOutcome(TipprmiStream& response) {
    if (response.empty()) {
        response.stopUnmarshalling();
        return TipprmiFailure(TipprmiFailure::kNotServed);
    }
    TipprmiExceptionContainer container;
    response >> container;
    if (!response.hasUnmarshallingFailed() && container.getExceptionType() == 0)
        return {};
    if (container.getExceptionType() == TipprmiGeneralException::getExceptionClassType())
        response.stopUnmarshalling();
    return failureIn(container);
}
