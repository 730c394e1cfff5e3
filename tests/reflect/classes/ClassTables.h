// Classes whose meta objects stand in files of their own.
#pragma once

#include "reflect.h"

/** Linked in different orders. */
namespace table {
constexpr unsigned int kBase = 0x52430030;
constexpr unsigned int kDerived = 0x52430031;
}  // namespace table

extern TreflectMetaClass const tableBase;
extern TreflectMetaClass const tableDerived;

/** Of the shared object class_plugin: one that the program knows as well, and one that is derived
 * from it. */
namespace plugin {
constexpr unsigned int kClass = 0x52430020;
constexpr unsigned int kFurtherClass = 0x52430021;
}  // namespace plugin
