#pragma once

#include <memory>

#include "oswrap/Thread.h"

class TreflectORB;

/**
 * A thread that serves a broker's queued messages. Ends by the rule of the pool, or when the
 * broker's queue is closed. It shares the broker, which is therefore there until the worker has
 * ended, even if what the worker serves deletes all brokers. Deletes itself.
 */
class ReflectWorker : public OSWrap::Thread {
public:
    explicit ReflectWorker(std::shared_ptr<TreflectORB> orb);
    /** The broker that the calling thread works for, or null. */
    static TreflectORB const* servedBroker();

protected:
    int run() override;

private:
    std::shared_ptr<TreflectORB> const orb_;
};
