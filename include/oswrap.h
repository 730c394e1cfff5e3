#pragma once

/** Threads, locks, clocks and the other parts of the operating system that the broker uses. */

#include "oswrap/AdaptiveWait.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/Lock.h"
#include "oswrap/Memory.h"
#include "oswrap/Mutex.h"
#include "oswrap/NetNumVar.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/SmartPointer.h"
#include "oswrap/Thread.h"
#include "oswrap/TimeSpec.h"
#include "oswrap/UniqueIdGen.h"
