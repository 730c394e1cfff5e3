// Child program of ByValueCallTest: serves a desk until its input ends.
#include "ActorSide.h"
#include "DeskObject.h"
#include "handler_threads.h"

int main() {
    TreflectHandlerState const inside(true);
    desk::Server const server(desk::remoteId());
    TreflectReleaseHandlerState const outside;
    testsupport::obeyLines([](auto&, auto&) { return true; });
}
