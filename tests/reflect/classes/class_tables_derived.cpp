#include "ClassTables.h"

TreflectMetaClass const tableDerived("Derived", table::kDerived, {&tableBase}, {}, {"X"});
