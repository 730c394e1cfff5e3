#pragma once

/** The platform's log records. */

#include "logging/Log.h"
