// Serves a gate until its input ends.
#include <handler_threads.h>

#include "ActorSide.h"
#include "GateObject.h"

int main(int count, char** arguments) {
    TreflectHandlerState const inside(true);
    Gate const gate(count > 1 ? arguments[1] : "gate.there");
    {
        TreflectReleaseHandlerState const outside;
        testsupport::obeyLines([](auto const&...) { return true; });
    }
    prepareOrbForDeletion();
    return 0;
}
