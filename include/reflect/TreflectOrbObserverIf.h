#pragma once

#include "oswrap/Export.h"
#include "transport/TerminationId.h"

/**
 * Hears of brokers that come and go: derive from it and register it with
 * TreflectORB::registerOrbCreation and registerOrbDeletion.
 */
class REFLECTORB_API TreflectOrbObserverIf {
public:
    /** What happened to a broker; also, as a set of bits, what an observer wants to hear of. */
    enum Appear_t {
        kAppear = 1,
        kDisappear = 2,
        kAll = 3,
        kStop = 4  // for the library itself: ends the thread that tells observers
    };

    virtual ~TreflectOrbObserverIf();
    /** The broker at the transport address `broker` has come up or gone away. Called with the run
     * permission, by one thread for all observers: what takes long keeps the next ones waiting. */
    virtual void notify(Transport::TerminationId const& broker, Appear_t const& what) = 0;
};
