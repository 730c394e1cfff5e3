#pragma once

#include "oswrap/Export.h"

/** Chooses at compile time whether the handler-thread classes carry their diagnostics: 1 with, 0
 * without. Only `Debugging_t<1>` is built. */
template <int Level>
struct REFLECTORB_API Debugging_t {};
