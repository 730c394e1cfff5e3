#pragma once

/** Bytes that this process has copied by memcpy and memmove so far, a kibibyte or more at a time;
 * 0 under sanitizers, which copy in their own way. Any thread. */
unsigned long copiedBytes();
