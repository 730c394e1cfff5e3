// The classes of the shared object class_plugin: one that the program knows as well, and one that
// is derived from it.
#pragma once

namespace plugin {
constexpr unsigned int kClass = 0x52430020;
constexpr unsigned int kFurtherClass = 0x52430021;
}  // namespace plugin
