#pragma once

#include "oswrap/Thread.h"

class TreflectORB;

/**
 * A thread that serves a broker's queued messages. Ends by the rule of the pool, or when the
 * broker's queue is closed. Deletes itself.
 */
class ReflectWorker : public OSWrap::Thread {
public:
    explicit ReflectWorker(TreflectORB& orb);
    /** The broker that the calling thread works for, or null. */
    static TreflectORB const* servedBroker();

protected:
    int run() override;

private:
    TreflectORB& orb_;
};
