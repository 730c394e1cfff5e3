// The actor `inspect` looks at objects of other actors, and uses them, by names alone: of their
// classes it has nothing but the meta information, which it was built with (KnownClasses.cpp) or
// learns of the objects' process. `inspect --help` tells what it can do.
#include <handler_threads.h>
#include <logging.h>

#include "Describe.h"
#include "EndSignals.h"
#include "Find.h"
#include "Group.h"
#include "Options.h"
#include "Report.h"
#include "Use.h"
#include "Watch.h"

namespace {

bool perform(Options const& options) {
    if (!hasJoinedGroup())
        return complain("this process could not join the group: is TRANSPORT_DIR usable?");
    if (options.action == Options::Action::kBrokers) {
        printBrokers();
        return true;
    }
    if (options.action == Options::Action::kFollow) {
        follow(options.count);
        return true;
    }
    TreflectObject const object = find(options.object);
    if (!object.isConnected())
        return false;
    if (!object.meta())
        return complain("the class of \"" + options.object + "\" is unknown here") ||
               complain(
                   "its process tells what it is with REFLECTORB_PROCESS_OBJECT=1 in its "
                   "environment");
    switch (options.action) {
        case Options::Action::kTree:
            printTree(object);
            return true;
        case Options::Action::kSet:
            return setAttribute(object, options.member, options.texts.front());
        case Options::Action::kCall:
            return callOperation(object, options.member, options.texts);
        case Options::Action::kWatch:
            return watch(object, options.member, options.count);
        case Options::Action::kVeto:
            return veto(object, options.member, options.count);
        default:
            describe(object);
            return true;
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options const options = readOptions(argc, argv);
    keepEndSignals();
    TreflectMetaClass::learn(true);
    Logging::setThreshold(2);  // what fails is told in the program's own words
    // Handles and observers are made, used and destroyed under the run permission.
    TreflectHandlerState const inside(true);
    return perform(options) ? 0 : 1;
}
