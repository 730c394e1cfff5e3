#pragma once

#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiResult.h"

/** Reads the head of a response: success, and its results are next in `response`; or why the call
 * failed. An empty response, which stands for none, is not read. */
inline TipprmiResult<void> readOutcome(TipprmiStream& response) {
    if (response.empty())
        return TipprmiFailure(TipprmiFailure::kNotServed);
    TipprmiExceptionContainer container;
    response >> container;
    if (!response.hasUnmarshallingFailed() && container.getExceptionType() == 0)
        return {};
    TipprmiGeneralException general(TipprmiFailure::kUnreadable);
    if (container.getExceptionType() == TipprmiGeneralException::getExceptionClassType())
        container.getExceptionData(general);
    return TipprmiFailure(general.code());
}
