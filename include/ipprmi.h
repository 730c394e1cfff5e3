#pragma once

/** Marshalling, identifiers, values and remotely callable objects. */

#include "ipprmi/CallHelper.h"
#include "ipprmi/TipprmiAny.h"
#include "ipprmi/TipprmiCall.h"
#include "ipprmi/TipprmiContainers.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiOID.h"
#include "ipprmi/TipprmiObjectBase.h"
#include "ipprmi/TipprmiObjectClient.h"
#include "ipprmi/TipprmiObjectSkeleton.h"
#include "ipprmi/TipprmiOutcome.h"
#include "ipprmi/TipprmiResult.h"
#include "ipprmi/TipprmiSequence.h"
#include "ipprmi/TipprmiStream.h"
#include "ipprmi/TipprmiStruct.h"
