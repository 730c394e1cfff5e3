#pragma once

#include "platform/transport/local/Descriptor.h"

namespace Transport {

// A bell wakes a thread that sleeps on descriptors, of this process or of another that was given
// it. It is an event counter; edge-triggered, it need not be read, since each ring is an event.

/** A new bell; invalid, with errno, on failure. */
Descriptor makeBell();
/** Never blocks, on bells of `makeBell` and those that `takeBell` has let pass. */
void ringBell(int fd);
/** Whether a descriptor that came from outside is a bell; if so, sees that ringing never blocks. */
bool takeBell(int fd);

}  // namespace Transport
