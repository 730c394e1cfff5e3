#pragma once

#include <atomic>
#include <memory>

#include "handler_threads/RunPermission.h"
#include "logging/LineLimit.h"
#include "reflect/TreflectORB.h"
#include "reflect/broker/CallGate.h"
#include "reflect/broker/LinesPerPeer.h"
#include "reflect/broker/MessageQueue.h"
#include "reflect/broker/ObjectRegistry.h"
#include "reflect/broker/PerformanceCounters.h"
#include "reflect/broker/RequestTable.h"
#include "reflect/broker/ReturnedCalls.h"
#include "reflect/notices/Arrivals.h"
#include "reflect/notices/ClassRecords.h"
#include "reflect/notices/PresentOrbs.h"
#include "reflect/notices/TreflectOrbObserver.h"
#include "transport/WorkWait.h"

/** What a broker is made of. Each part guards itself, or is guarded by the run permission. */
struct TreflectORB::Parts {
    /** Payload bytes that requests and responses of the brokers start with; they grow beyond it. */
    static constexpr unsigned int kRequestSize = 100;
    static constexpr unsigned int kResponseSize = 104;

    Parts(TreflectORB& orb, unsigned int lastTransactionId, Transport::Backlog const& backlog)
        : ongoingRequests_(lastTransactionId), messageQueue(backlog), classes(orb) {}

    CallGate calls;
    Logging::LineLimit turnedAway;  // for lines about calls that come too late
    RequestTable ongoingRequests_;
    Transport::WorkWait work;  // of the workers
    MessageQueue messageQueue;
    ObjectRegistry objects OSW_GUARDED_BY_PERMISSION;
    PerformanceCounters counters OSW_GUARDED_BY_PERMISSION;
    ReturnedCalls returnedCalls;  // to be counted there
    ClassRecords classes;
    Arrivals arrivals;
    PresentOrbs presentOrbs;
    std::shared_ptr<TreflectOrbObserver> const presence = std::make_shared<TreflectOrbObserver>();
    /** Whether the broker has been deleted: nothing is entered into it any more. */
    bool retired OSW_GUARDED_BY_PERMISSION = false;
    /** The next one in the list of deleted brokers, whose lock guards it. */
    TreflectORB const* nextRetired = nullptr;
    /** The lines that other brokers, or who plays one, can cause at will. */
    struct LineLimits {
        Logging::LineLimit shortMessage;
        Logging::LineLimit tooMuch;
        Logging::LineLimit tooMuchServed;
        Logging::LineLimit tooManyClasses;
        Logging::LineLimit notSentBack;
        Logging::LineLimit unexpectedResponse;
        Logging::LineLimit returnedCall;
        Logging::LineLimit noWorker;
        Logging::LineLimit noMemory;
        Logging::LineLimit unknownType;
        Logging::LineLimit unknownObject;
        Logging::LineLimit thrown;
        Logging::LineLimit notServed;
        Logging::LineLimit notAnswered;
        Logging::LineLimit notResolved;
        Logging::LineLimit unreadable;
        Logging::LineLimit responseFailure;
        Logging::LineLimit forgedNotice;
        Logging::LineLimit notFound;
        Logging::LineLimit aborted;
        Logging::LineLimit sentBack;
    } limits;
    /** Answers for when there is no memory for one. */
    struct Reserve {
        /** Throws when there is no memory for these either. */
        Reserve();

        /// An exception container with code 0.
        TreflectMessage failedCall OSW_GUARDED_BY_PERMISSION;
        /// An object not found, empty sequences.
        TreflectMessage nothing OSW_GUARDED_BY_PERMISSION;
        // In `receive` only, as forgedResponses
        TreflectMessage sentBack;  // the head of a message that is not served
    } reserve;
    LinesPerPeer forgedResponses;
};
