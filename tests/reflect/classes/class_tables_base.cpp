#include "ClassTables.h"

TreflectMetaClass const tableBase("Base", table::kBase, {}, {{"getX", 1}});
