#include "reflect/TreflectObserverClient.h"

#include "reflect/TreflectDeadline.h"
#include "reflect/TreflectObserverSkeleton.h"
#include "reflect/objects/StubInUse.h"

namespace {

constexpr unsigned int kNotify = 0;

}  // namespace

TreflectObserverClient::~TreflectObserverClient() = default;

bool TreflectObserverClient::notify(TreflectObject const& source, unsigned int const& cc,
                                    unsigned int const& mc,
                                    TipprmiSequence<TipprmiAny, 0u> const& arguments,
                                    bool& alive) const {
    // One who is not waited for would be taken for gone, and forgotten; and what an observer of
    // this process does is not bounded by the caller's deadline either.
    TreflectDeadline::Suspension const untilItAnswers;
    // Anything may have been registered as an observer; what is none does not answer a request.
    TipprmiObjectSkeleton* const server = getServer();
    TreflectServerObject* const object = server ? server->reflective() : nullptr;
    if (object && object->isObserver())
        return static_cast<TreflectObserverSkeleton*>(object)->notify(source, cc, mc, arguments,
                                                                      alive);
    TreflectObjectStub* const stub = getStub_();
    if (!stub)
        return false;
    StubInUse const inUse(*stub);
    TipprmiStream request(TipprmiStream::kUsualSize);
    TipprmiStream response = TipprmiStream::withoutBuffer_();
    constexpr unsigned int kClass = TreflectObserverSkeleton::kClassId;
    prepareRequestStream_(true, kClass, kNotify, request) << source << cc << mc << arguments;
    dispatch(true, kClass, kNotify, request, response);
    stub->prepareResponseStream(true, response);
    bool answer = false;
    response >> answer >> alive;
    if (response.hasUnmarshallingFailed())
        response.printUnmarshallError(kClass, kNotify);
    return answer;
}
