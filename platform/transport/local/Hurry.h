#pragma once

#include <signal.h>
#include <time.h>

namespace Transport {

/**
 * For a scope, the calling thread gets signals, one after the other: so the kernel gives up what it
 * would wait for in the thread's name, such as for the rest of a connection that lingers. With
 * SIGURG, which hardly a program uses. Where this one does, or the kernel has no timer left, all
 * takes as long as it takes. A resource of its thread.
 */
class Hurry {
public:
    Hurry();
    ~Hurry();
    Hurry(Hurry const&) = delete;
    Hurry& operator=(Hurry const&) = delete;

private:
    bool begun_ = false;
    timer_t timer_{};
    sigset_t former_{};
};

}  // namespace Transport
