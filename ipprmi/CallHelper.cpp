#include "ipprmi/CallHelper.h"
// Whether the caller has the run permission is asked of the broker, and calls leave through stubs.
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/TreflectObjectStub.h"

namespace {

// Room for the arguments and results of most calls; streams grow beyond it.
constexpr int kUsualSize = 100;

/**
 * Keeps a stub for the length of a call: while the call waits, other threads run, and may let go of
 * the handle through which it was made. Without the permission, which is misuse, counts must not be
 * touched; and a stub that nobody has counted is not the handler's.
 */
class StubInUse {
public:
    explicit StubInUse(TreflectObjectStub& stub)
        : stub_(TreflectORB::hasRunPermission() && stub.refCount() > 0 ? &stub : nullptr) {
        if (stub_)
            stub_->incRefCount();
    }
    ~StubInUse() {
        if (stub_)
            TreflectObjectHandler::getInstance()->releaseStub(stub_);
    }
    StubInUse(StubInUse const&) = delete;
    StubInUse& operator=(StubInUse const&) = delete;

private:
    TreflectObjectStub* const stub_;
};

void callRemote(ClientCallHookBaseV const& hook, InParamHook const& in, OutParamHook const& out,
                TreflectObjectStub& stub, unsigned int cc, unsigned int mc, bool withResponse) {
    StubInUse const inUse(stub);
    TipprmiStream request(kUsualSize);
    TipprmiStream response(kUsualSize);
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

}  // namespace

ClientCallHookBaseV::~ClientCallHookBaseV() = default;

void ClientCallHookBaseV::insertResult(TipprmiSequence<TipprmiAny, 0u>&) const {}

void ClientCallHookBaseV::evaluateResponse(TipprmiStream& response) const {
    if (response.empty()) {
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
    if (local)
        hook.callServer(*local);
    else
        callRemote(hook, in, out, stub, cc, mc, withResponse);
}
