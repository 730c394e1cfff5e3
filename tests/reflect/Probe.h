// A server object and its client, with operations that tests need. Used by tests and by the program
// reflect_actor.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>

#include "Waiting.h"
#include "handler_threads.h"
#include "ipprmi.h"
#include "reflect.h"

enum ProbeMethod : unsigned int {
    kEcho = 1,            // (unsigned) -> the same
    kThrowError = 2,      // std::runtime_error
    kThrowNumber = 3,     // an int
    kEndThread = 4,       // ends the worker that serves the call
    kHold = 5,            // blocks until release(), without the permission
    kTakeTwice = 6,       // leaves with a second level of the permission
    kReleaseAll = 7,      // leaves without the permission
    kDeleteBrokers = 8,   // deletes all brokers of its process
    kExit = 9,            // ends its process
    kRefuse = 11,         // not handled
    kToAndFro = 14,       // (depth) -> the same, called at the partner with one less
    kHoldPermission = 13  // blocks until release(), with the permission
};

constexpr unsigned int kProbeClass = 0xC1A55;

/** A raw client: every call is written out, so that tests see what comes back. */
class ProbeClient : public TipprmiObjectClient {
public:
    using TipprmiObjectClient::TipprmiObjectClient;

    struct Answer {
        bool succeeded = false;           // what the broker answered
        unsigned int exceptionType = 99;  // of the container in the response
        unsigned int exceptionCode = 99;  // of its general exception
        unsigned int number = 0;
    };

    Answer call(unsigned int mc, unsigned int number = 0) {
        TipprmiStream request(100);
        TipprmiStream response(100);
        prepareRequestStream_(true, kProbeClass, mc, request);
        request << number;
        bool const succeeded = dispatch(true, kProbeClass, mc, request, response);
        return read(succeeded, response);
    }
    static Answer read(bool succeeded, TipprmiStream& response) {
        Answer answer;
        answer.succeeded = succeeded;
        TipprmiExceptionContainer container;
        response >> container;
        answer.exceptionType = container.getExceptionType();
        TipprmiGeneralException exception(99);
        if (answer.exceptionType == 1)
            container.getExceptionData(exception);
        answer.exceptionCode = exception.code();
        if (answer.exceptionType == 0)
            response >> answer.number;
        return answer;
    }
    bool send(unsigned int mc, unsigned int number) {
        TipprmiStream request(100);
        TipprmiStream response(100);
        prepareRequestStream_(false, kProbeClass, mc, request);
        request << number;
        return dispatch(false, kProbeClass, mc, request, response);
    }
};

/** A call of object 0xABCD at another broker that is written by hand. */
inline ProbeClient::Answer forwardCall(TreflectORB& orb, TreflectOrbId target,
                                       bool withResponse = true) {
    TipprmiStream request(100);
    TipprmiStream response(100);
    request << 0xABCDu << withResponse << 0x77u << 5;
    bool const succeeded = orb.forwardMsg(target, withResponse, request, response);
    return ProbeClient::read(succeeded, response);
}

class Probe : public TipprmiObjectSkeleton {
public:
    explicit Probe(std::string const& name, NamespaceId known = NSID_UNIT)
        : TipprmiObjectSkeleton(TipprmiOID(name, known)) {}

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        unsigned int number = 0;
        in >> number;
        switch (mc) {
            case kEcho:
                break;
            case kThrowError:
                prepareResponseStream_(out);
                throw std::runtime_error("on purpose");
            case kThrowNumber:
                throw 7;
            case kEndThread:
                pthread_exit(nullptr);
            case kHold:
                hold();
                break;
            case kHoldPermission:
                entered_.open();
                released_.wait(std::chrono::hours(1));
                break;
            case kToAndFro:
                number = number == 0 ? 0 : 1 + ProbeClient(partner_).call(mc, number - 1).number;
                break;
            case kTakeTwice:
                TreflectORB::getRunPermission();
                break;
            case kReleaseAll:
                TreflectORB::leaveHandlerState(true);
                break;
            case kDeleteBrokers:
                prepareOrbForDeletion();
                break;
            case kExit:
                std::exit(static_cast<int>(number));
            case kRefuse:
                return false;
            default:
                return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
        prepareResponseStream_(out);
        out << number;
        return true;
    }

    testsupport::Gate& entered() { return entered_; }
    /** Whom kToAndFro calls. Under the run permission. */
    void partner(TipprmiOID const& oid) { partner_ = oid; }
    void release() { released_.open(); }
    /** Number of calls that are held now. */
    unsigned int held() const { return held_; }

private:
    void hold() {
        TreflectReleaseHandlerState const released;
        ++held_;
        entered_.open();
        released_.wait(std::chrono::hours(1));
        --held_;
    }

    TipprmiOID partner_{"", NSID_UNIT};  // guarded by the run permission
    testsupport::Gate entered_;
    testsupport::Gate released_;
    std::atomic<unsigned int> held_{0};
};
