#include "reflect/TreflectCall.h"

#include "reflect/TreflectObjectStub.h"

namespace {

/** A direct call writes no arguments and reads no results. */
class NothingIn final : public InParamHook {
public:
    void marshall(TipprmiStream&) const override {}
};
class NothingOut final : public OutParamHook {
public:
    void unmarshall(TipprmiStream&) const override {}
};

}  // namespace

bool treflectPerformLocally(ClientCallHookBaseV const& hook, TreflectObject const& object,
                            TreflectServerObject& server, unsigned int cc, unsigned int mc) {
    TreflectObjectStub& stub = *object.getStub_();
    bool const observed =
        server.preObserverAvailable(cc, mc) || server.postObserverAvailable(cc, mc);
    if (!observed) {
        ClientCallHelper(hook, NothingIn(), NothingOut(), stub, &server, cc, mc, true);
        return true;
    }
    TreflectObservable::Life const life(server);
    ClientCallHelper(hook, NothingIn(), NothingOut(), stub, &server, cc, mc, true);
    return !life.ended();
}
