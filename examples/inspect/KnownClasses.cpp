// The classes that `inspect` knows. This is its only file that knows any: to look at objects of
// other classes as well, include the header that has their meta information.
#include "../house/generated/home.h"
#include "../machine/MachineClasses.h"
