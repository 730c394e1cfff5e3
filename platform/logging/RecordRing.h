#pragma once

#include <atomic>

#include "logging/Log.h"

namespace Logging {

/** Whether records are kept, see RecentRecords. */
extern std::atomic<bool> keepsRecords;

/** Keeps a record if somebody wants that. Never fails, takes a leaf lock for a copy. */
void keepRecord(Record const& record);

}  // namespace Logging
