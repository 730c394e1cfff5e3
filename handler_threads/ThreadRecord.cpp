#include "handler_threads/ThreadRecord.h"

namespace handlerthreads {

__thread ThreadRecord threadRecord HANDLERTHREADS_TLS = {};

void identifyThread() {
    threadRecord.tid = OSWrap::Thread::getCurrentTid();
    threadRecord.id = OSWrap::Thread::getCurrentId();
}

bool ThreadRecord::reportDue(Misuse kind) {
    unsigned const shift = static_cast<unsigned>(kind);
    unsigned counter = (misuse >> shift) & 3u;
    if (misused && counter <= 2)
        ++counter;
    misused = true;
    misuse = (misuse & ~(3u << shift)) | (counter << shift);
    return counter <= 2;
}

}  // namespace handlerthreads
