#pragma once

/** Addressed messages between the processes of a machine, groups and presence. */

#include "transport/AddressedMessage.h"
#include "transport/AnswerWait.h"
#include "transport/IdInfo.h"
#include "transport/Termination.h"
#include "transport/TerminationId.h"
#include "transport/TerminationImpl.h"
#include "transport/TransportLayer.h"
