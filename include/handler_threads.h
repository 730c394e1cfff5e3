#pragma once

/** Run permission, handler state, and the locks and guards that go with them. */
#include "handler_threads/DebugPermission.h"
#include "handler_threads/Debugging.h"
#include "handler_threads/HTUtil.h"
#include "handler_threads/HandlerThreads.h"
#include "handler_threads/HandlerThreadsType.h"
#include "handler_threads/RunPermConditionVar.h"
#include "handler_threads/RunPermMutex.h"
#include "handler_threads/SetContainer.h"
#include "handler_threads/TreflectConditionVar.h"
#include "handler_threads/TreflectCountedMutex.h"
#include "handler_threads/TreflectHandlerState.h"
#include "handler_threads/TreflectMutex.h"
#include "handler_threads/TreflectReleaseHandlerState.h"
#include "handler_threads/TreflectRestoreHandlerState.h"
#include "handler_threads/TreflectRunPermission.h"
#include "handler_threads/TurnExchange.h"
