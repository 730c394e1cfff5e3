// Classes whose meta objects stand in files of their own, linked in different orders.
#pragma once

#include "reflect.h"

namespace table {
constexpr unsigned int kBase = 0x52430030;
constexpr unsigned int kDerived = 0x52430031;
}  // namespace table

extern TreflectMetaClass const tableBase;
extern TreflectMetaClass const tableDerived;
