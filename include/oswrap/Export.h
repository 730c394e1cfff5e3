#pragma once

/** Marks a class or function that the shared libraries export; everything else stays hidden. */
#define REFLECTORB_API __attribute__((visibility("default")))
