#include "ipprmi/TipprmiCall.h"

#include "ipprmi/CallOutcome.h"
#include "oswrap/OutOfMemory.h"
// Calls leave through stubs.
#include "reflect/TreflectObjectStub.h"

namespace {

/** Keeps what the response says of the call. Objects of this process are called through the streams
 * as well, so the operations for a direct call have nothing to do. */
class Hook final : public ClientCallHookBaseV {
public:
    explicit Hook(bool withResponse) : withResponse_(withResponse) {}

    void callServer(TreflectServerObject&) const override {}
    void fillParams(TipprmiSequence<TipprmiAny, 0u>&) const override {}
    char const* operationName() const override { return "tipprmiCall"; }
    void evaluateResponse(TipprmiStream& response) const override {
        answered_ = !response.empty();
        ClientCallHookBaseV::evaluateResponse(response);
    }

    bool failed() const {
        return exception().getExceptionType() != 0 || (withResponse_ && !answered_);
    }
    TipprmiFailure failure() const {
        if (exception().getExceptionType() == 0)
            return TipprmiFailure(TipprmiFailure::kNotServed);
        TipprmiExceptionContainer container = exception();
        return failureIn(container);
    }

private:
    bool const withResponse_;
    mutable bool answered_ = false;
};

/** Notes whether the results could be read. Results of a call that failed are not read. */
class Reader final : public OutParamHook {
public:
    Reader(OutParamHook const& out, Hook const& hook) : out_(out), hook_(hook) {}

    void unmarshall(TipprmiStream& response) const override {
        if (hook_.failed())
            return;
        out_.unmarshall(response);
        unreadable_ = response.hasUnmarshallingFailed();
    }
    bool unreadable() const { return unreadable_; }

private:
    OutParamHook const& out_;
    Hook const& hook_;
    mutable bool unreadable_ = false;
};

bool perform(Hook const& hook, TipprmiObjectClient const& object, InParamHook const& in,
             OutParamHook const& out, unsigned int cc, unsigned int mc, bool withResponse,
             TipprmiFailure& failure) {
    TreflectObjectStub* const stub = object.getStub_();
    if (!stub)
        return false;
    Reader const reader(out, hook);
    bool const performed = OSWrap::withMemory(
        [&] { ClientCallHelper(hook, in, reader, *stub, nullptr, cc, mc, withResponse); });
    if (!performed)
        failure = TipprmiFailure();
    else if (hook.failed())
        failure = hook.failure();
    else if (reader.unreadable())
        failure = TipprmiFailure(TipprmiFailure::kUnreadable);
    else
        return true;
    return false;
}

}  // namespace

bool tipprmiPerform(TipprmiObjectClient const& object, InParamHook const& in,
                    OutParamHook const& out, unsigned int cc, unsigned int mc, bool withResponse,
                    TipprmiFailure& failure) {
    Hook const hook(withResponse);
    return perform(hook, object, in, out, cc, mc, withResponse, failure);
}

bool tipprmiPerform(TipprmiObjectClient const& object, InParamHook const& in,
                    OutParamHook const& out, unsigned int cc, unsigned int mc,
                    TipprmiFailure& failure, TipprmiExceptionContainer& exception) {
    Hook const hook(true);
    bool const performed = perform(hook, object, in, out, cc, mc, true, failure);
    exception = hook.exception();
    return performed;
}
