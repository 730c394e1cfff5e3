// Child program of ByValueCallTest: serves a desk until its input ends.
#include <cstdio>

#include "DeskObject.h"
#include "handler_threads.h"

int main() {
    TreflectHandlerState const inside(true);
    desk::Server const server(desk::remoteId());
    TreflectReleaseHandlerState const outside;
    std::puts("serving");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
