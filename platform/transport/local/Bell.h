#pragma once

#include "platform/transport/local/Descriptor.h"

namespace Transport {

// A bell wakes a thread that sleeps on descriptors. It is an event counter; edge-triggered, it need
// not be read, since each ring is an event.

/** A new bell for threads of this process; invalid, with errno, on failure. */
Descriptor makeBell();
/** Rings a bell of this process. Never blocks. */
void ringBell(int fd);

// A door bell is given to another process, to be rung by it. Both then share one description of
// the file, so that either can make it blocking and fill its counter at any moment: nobody may wait
// on what that does to him. So its counter starts out large, and is rung by being lowered by one
// in a call that never blocks by itself, whatever the description says; its owner waits for both
// directions, edge-triggered.

/** A new door bell; invalid, with errno, on failure. */
Descriptor makeDoorBell();
/** Rings a bell that `takeDoorBell` has let pass. Never blocks, whatever its owner does. (Before
 * Linux 5.8, where calls cannot say that they must not block, and under emulators, the counter is
 * raised by zero instead, which blocks only on a counter that kernel events have made overflow.) */
void ringDoorBell(int fd);
/** Whether a descriptor that came from outside is an event counter. */
bool takeDoorBell(int fd);

}  // namespace Transport
