#pragma once

#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiResult.h"

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
    TipprmiGeneralException general(TipprmiFailure::kUnreadable);
    if (container.getExceptionType() == TipprmiGeneralException::getExceptionClassType()) {
        container.getExceptionData(general);
        response.stopUnmarshalling();
    }
    return TipprmiFailure(general.code());
}
