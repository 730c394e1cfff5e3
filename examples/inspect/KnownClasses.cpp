// The classes that `inspect` knows by itself. This is its only file that knows any: to look at
// objects of other classes as well, whose processes do not tell what they are, include the header
// that has their meta information.
#include "../house/generated/home.h"
#include "../machine/MachineClasses.h"
