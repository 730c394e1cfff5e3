#pragma once

#include "reflect/TreflectORB.h"
#include "reflect/broker/OngoingRequest.h"

/** The transaction id of a call. */
struct TreflectORB::OngoingRequestId {
    enum class Stage {
        None,     // none has been given
        Chosen,   // nobody finds the call's record by it
        Entered,  // a response to it finds the call's record
    };
    unsigned int value = 0;
    Stage stage = Stage::None;
    bool issued = false;  // it may be answered
};

/**
 * Ends a call's transaction when the scope ends, in whatever way: takes the record out of the table
 * of outstanding requests, or, if somebody has taken it out to deliver, waits for that delivery.
 */
class forwardMsgCleanup {
public:
    forwardMsgCleanup(TreflectORB::OngoingRequestId& id, bool responseAwaited,
                      TreflectMessage& request, OngoingRequest* record, TreflectORB const* orb);
    ~forwardMsgCleanup();
    forwardMsgCleanup(forwardMsgCleanup const&) = delete;
    forwardMsgCleanup& operator=(forwardMsgCleanup const&) = delete;

private:
    TreflectORB::OngoingRequestId& id_;
    bool const responseAwaited_;
    TreflectMessage& request_;
    OngoingRequest* const record_;
    TreflectORB const* const orb_;
};
