#pragma once

/** Number of heap allocations of this process so far, by whatever way; always 0 under sanitizers,
 * which have an allocator of their own. Any thread. */
unsigned long allocationCount();
