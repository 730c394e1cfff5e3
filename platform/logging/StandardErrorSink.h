#pragma once

#include "logging/Log.h"

namespace Logging {

/** The default sink: one line per record on standard error, with one write, waiting for a slow
 * reader for a bounded time only. Keeps the signature of a sink; `context` is not used. */
void standardErrorSink(Record const& record, void* context);

}  // namespace Logging
