#pragma once

#include "handler_threads/RunPermission.h"
#include "ipprmi/TipprmiStream.h"
#include "reflect/TreflectMessage.h"
#include "reflect/broker/TreflectOrbParts.h"

/** A message that a worker serves, holding the run permission. */
class TreflectORB::IncomingMessage {
public:
    /** `note`: see `enqueue_`. */
    IncomingMessage(TreflectORB& orb, TreflectMessage const& message, unsigned int note)
        : orb_(orb), message_(message), note_(note), request_(message, false) {}

    void serve() OSW_REQUIRES_PERMISSION;
    /** Memory has run out in `serve`, or it is not to be served. */
    void makeUpFor() OSW_REQUIRES_PERMISSION;

private:
    void makeUpForOnce() OSW_REQUIRES_PERMISSION;
    void serveResolve() OSW_REQUIRES_PERMISSION;
    void serveCall() OSW_REQUIRES_PERMISSION;
    void serveNotice(NoticeKind kind) OSW_REQUIRES_PERMISSION;
    void serveSubscription(NoticeKind kind) OSW_REQUIRES_PERMISSION;
    void serveCancellation() OSW_REQUIRES_PERMISSION;
    void serveCounterQuery() OSW_REQUIRES_PERMISSION;
    void serveArrival() OSW_REQUIRES_PERMISSION;
    bool isReadable(unsigned int classId) const;
    bool isOfSender(TreflectObject const& object, unsigned int classId) const;
    void answer(TipprmiStream& response) OSW_REQUIRES_PERMISSION;
    bool callObject(TipprmiObjectSkeleton& object, TipprmiStream& response) OSW_REQUIRES_PERMISSION;
    bool callUnguarded(TipprmiObjectSkeleton& object, TipprmiStream& response);
    void answerCall(TipprmiStream& response, bool served) OSW_REQUIRES_PERMISSION;
    bool send(TipprmiStream& response) OSW_REQUIRES_PERMISSION;
    TreflectMessage& failureInReserve() OSW_REQUIRES_PERMISSION;
    TreflectMessage& asAnswer(TreflectMessage& message) const;
    void reportUnknownObject() const;
    ClassRecords& classes() const { return orb_.parts_->classes; }
    Parts::LineLimits& limits() const { return orb_.parts_->limits; }

    TreflectORB& orb_;
    TreflectMessage const message_;
    unsigned int const note_;
    TipprmiStream request_;

    // Header of a call
    unsigned int ioid_ = 0;
    bool transaction_ = false;  // a response is awaited
    unsigned int cc_ = 0;
    int mc_ = 0;
};
