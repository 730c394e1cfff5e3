#include "ipprmi/CallHelper.h"

#include "ipprmi/BigEndian.h"
// Whether the caller has the run permission is asked of the broker, calls leave through stubs, and
// observers stand with the server object.
#include "reflect/TreflectORB.h"
#include "reflect/TreflectServerObject.h"
#include "reflect/objects/ServedCall.h"
#include "reflect/objects/StubInUse.h"

namespace {

void callRemote(ClientCallHookBaseV const& hook, InParamHook const& in, OutParamHook const& out,
                TreflectObjectStub& stub, unsigned int cc, unsigned int mc, bool withResponse) {
    StubInUse const inUse(stub);
    TipprmiStream request(TipprmiStream::kUsualSize);
    TipprmiStream response = TipprmiStream::withoutBuffer_();
    stub.prepareRequestStream(withResponse, cc, mc, request);
    in.marshall(request);
    // A failure stands in the response, as an exception container.
    stub.dispatch(withResponse, cc, mc, request, response);
    stub.prepareResponseStream(withResponse, response);
    hook.evaluateResponse(response);
    out.unmarshall(response);
    if (response.hasUnmarshallingFailed())
        response.printUnmarshallError(cc, mc);
}

/** Whether a response begins with a whole exception container: type, length and that many bytes. */
bool beginsWithContainer(TipprmiStream const& response) {
    constexpr int kTypeSize = 4;
    constexpr int kHeadSize = kTypeSize + 4;
    int const rest = response.getDataSize() - kHeadSize;
    return rest >= 0 &&
           static_cast<int>(ipprmi::loadBigEndian(response.getDataPtr() + kTypeSize)) <= rest;
}

bool isObserved(TreflectServerObject const& server, unsigned int cc, unsigned int mc) {
    return server.preObserverAvailable(cc, mc) || server.postObserverAvailable(cc, mc);
}

/** Observers may be waited for, so the object may be gone after each step. */
void callObserved(ClientCallHookBaseV const& hook, TreflectServerObject& server, unsigned int cc,
                  unsigned int mc) {
    TreflectObservable::Life const life(server);
    ServedCall call(Transport::TerminationId(0), &server);
    TipprmiSequence<TipprmiAny, 0u> values;
    values.setLength(1);
    hook.fillParams(values);
    if (!server.notifyObservers(TreflectObservable::kBeforeCalls, cc, mc, values)) {
        TipprmiStream refusal(TipprmiStream::kUsualSize);
        writeGeneralException(refusal, TipprmiFailure::kVetoed);
        return call.tellOutcome(&refusal);
    }
    values.setLength(0);
    TreflectServerObject::ObservedCall(server, cc, mc).run([&] { hook.callServer(server); });
    hook.insertResult(values);
    if (life.ended())
        return;
    server.notifyObservers(TreflectObservable::kAfterCalls, cc, mc, values);
    call.tellOutcome(nullptr);
}

}  // namespace

ClientCallHookBaseV::~ClientCallHookBaseV() = default;

void ClientCallHookBaseV::insertResult(TipprmiSequence<TipprmiAny, 0u>&) const {}

// A container that is cut off has been reported by whoever read the response, and tells nothing.
void ClientCallHookBaseV::evaluateResponse(TipprmiStream& response) const {
    if (!beginsWithContainer(response)) {
        exception_ = TipprmiExceptionContainer();
        return;
    }
    TipprmiStream fromStart(response.msg(), false);
    fromStart >> exception_;
}

InParamHook::~InParamHook() = default;

OutParamHook::~OutParamHook() = default;

void ClientCallHelper(ClientCallHookBaseV const& hook, InParamHook const& in,
                      OutParamHook const& out, TreflectObjectStub& stub,
                      TreflectServerObject* local, unsigned int cc, unsigned int mc,
                      bool withResponse) {
    TreflectORB::checkHandlerState();
    if (local && isObserved(*local, cc, mc))
        callObserved(hook, *local, cc, mc);
    else if (local)
        hook.callServer(*local);
    else
        callRemote(hook, in, out, stub, cc, mc, withResponse);
}
