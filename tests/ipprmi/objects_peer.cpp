// Child program of ObjectCallTest: serves objects until its input ends.
#include <cstdio>

#include "PeerObjects.h"
#include "handler_threads.h"
#include "reflect.h"

int main() {
    TreflectHandlerState const inside(true);
    peer::Server const server(peer::id());
    peer::TruncatingServer const truncating(peer::truncatingId());
    TreflectReleaseHandlerState const outside;
    std::puts("serving");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
