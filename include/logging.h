#pragma once

/** The platform's log records. */

#include "logging/LineLimit.h"
#include "logging/Log.h"
#include "logging/RecentRecords.h"
