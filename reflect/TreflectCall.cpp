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

void treflectPerformLocally(ClientCallHookBaseV const& hook, TreflectObject const& object,
                            TreflectServerObject& server, unsigned int cc, unsigned int mc) {
    ClientCallHelper(hook, NothingIn(), NothingOut(), *object.getStub_(), &server, cc, mc, true);
}
