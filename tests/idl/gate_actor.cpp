// Serves a gate until its input ends.
#include <handler_threads.h>

#include "ActorSide.h"
#include "GateObject.h"

int main() {
    TreflectHandlerState const inside(true);
    Gate const gate("gate");
    {
        TreflectReleaseHandlerState const outside;
        testsupport::obeyLines([](auto const&...) { return true; });
    }
    prepareOrbForDeletion();
    return 0;
}
