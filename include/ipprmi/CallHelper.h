#pragma once

#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiSequence.h"

class TreflectObjectStub;
class TreflectServerObject;

/** What one call does, for ClientCallHelper. Used through const references: what an
 * implementation records is mutable. */
class REFLECTORB_API ClientCallHookBaseV {
public:
    virtual ~ClientCallHookBaseV();
    /** Performs the call on the object in this process. */
    virtual void callServer(TreflectServerObject& server) const = 0;
    /** Puts in the call's in-parameters, for observers. `params` comes with one empty element,
     * which is to be filled or dropped. */
    virtual void fillParams(TipprmiSequence<TipprmiAny, 0u>& params) const = 0;
    /** Appends the call's results, for observers. The default appends nothing. */
    virtual void insertResult(TipprmiSequence<TipprmiAny, 0u>& params) const;
    /** The operation's name, for diagnostics. */
    virtual char const* operationName() const = 0;
    /**
     * Sees the response before the results are read. The response's exception container has been
     * consumed; the default reads it once more from the start, through a stream of its own, and
     * keeps it for `exception`. The response's read position stays as it is.
     */
    virtual void evaluateResponse(TipprmiStream& response) const;

    /** The container of the last response, of type 0 when the call succeeded or when the response
     * breaks off inside its container. */
    TipprmiExceptionContainer const& exception() const { return exception_; }

private:
    mutable TipprmiExceptionContainer exception_;
};

/** Writes the in-arguments into the request. */
class REFLECTORB_API InParamHook {
public:
    virtual ~InParamHook();
    /** Appends the arguments, in their order, behind the call header that the request has
     * already. */
    virtual void marshall(TipprmiStream& request) const = 0;
};

/** Reads the out-arguments from the response. */
class REFLECTORB_API OutParamHook {
public:
    virtual ~OutParamHook();
    /** Called behind the exception container, also when the call has failed: every read of the
     * response fails then. */
    virtual void unmarshall(TipprmiStream& response) const = 0;
};

/**
 * Performs a call: directly when `local` is given, else through the stub with class code `cc` and
 * method code `mc`, as a request whose response is awaited when `withResponse`, or into the
 * skeleton of an object of this process. A failure stands in what the hooks see of the response.
 * Call it with the run permission; it is given up while the caller waits.
 */
REFLECTORB_API void ClientCallHelper(ClientCallHookBaseV const& hook, InParamHook const& in,
                                     OutParamHook const& out, TreflectObjectStub& stub,
                                     TreflectServerObject* local, unsigned int cc, unsigned int mc,
                                     bool withResponse);

/** Leaves the sequence as it is. */
REFLECTORB_API void generateParamSeq(TipprmiSequence<TipprmiAny, 0u>& params);
