#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "Subject.h"

namespace bench {

/** Figures of one measurement by name ("p50_us", "calls_per_s", ...). */
using Figures = std::map<std::string, double>;

/**
 * Measures one scenario against a connected server whose process is `server`. Scenarios:
 * "single" (one caller, back to back), "paced" (one call per millisecond), "threads8" and
 * "threads64", "body" (64 KiB both ways), "oneway", "attribute" (a text fetched by a call, through
 * a bound attribute and by name), "memory" (resident sizes after some calls).
 */
Figures measure(Client& client, std::string const& scenario, pid_t server);

}  // namespace bench
