// A shared object that is opened and closed, with meta objects of its own.
#include "ClassTables.h"

namespace {

TreflectMetaClass const plugged("Plugged", plugin::kClass, {}, {{"getV", 1}});
TreflectMetaClass const further("Further", plugin::kFurtherClass, {&plugged}, {{"getV", 2}}, {"V"});

}  // namespace
