// Virtual operations stand in a fixed order of slots: programs that were built against an earlier
// library call them by their number.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "ipprmi.h"
#include "reflect.h"

namespace {

/** The slot that a pointer to a virtual operation calls, as the C++ ABI writes it down. */
template <class Operation>
std::size_t slot(Operation operation) {
    struct {
        std::uintptr_t function;
        std::ptrdiff_t adjustment;
    } raw{};
    static_assert(sizeof raw == sizeof operation);
    std::memcpy(&raw, &operation, sizeof raw);
#if defined(__arm__) || defined(__aarch64__)  // there the mark of a virtual operation is elsewhere
    std::uintptr_t const offset = raw.function;
#else
    std::uintptr_t const offset = raw.function - 1;
#endif
    return offset / sizeof(void*);
}

/** Operations that have the slots from `first` on. */
template <class... Operations>
void expectRow(std::size_t first, Operations... operations) {
    std::size_t next = first;
    for (std::size_t const one : {slot(operations)...})
        EXPECT_EQ(one, next++) << "operation " << next - first << " of " << __PRETTY_FUNCTION__;
}

/** One of several operations of a name. */
template <class Signature, class Class>
auto overload(Signature Class::*operation) {
    return operation;
}

constexpr std::size_t kFirst = 2;  // behind the destructor, which has two slots

TEST(SlotOrder, IsThatOfTheInterface) {
    using Base = TipprmiObjectBase;
    using Skeleton = TipprmiObjectSkeleton;
    using ToServer = void(Skeleton*);
    using ToName = void(TipprmiOID const&);
    using ToNameAtBroker = void(TreflectORB const*, TipprmiOID const&);
    expectRow(kFirst, &Base::getOID, &Base::getInternalOID, &Base::getNamespaceId, &Base::orbId,
              &Base::dispatch, &Base::setExceptionContainer, &Base::getExceptionContainer,
              &Base::hasOID, &Skeleton::connect, &Skeleton::getClient);

    using Client = TipprmiObjectClient;
    expectRow(kFirst, &Client::forwardMsg, &Client::dispatch, overload<ToServer>(&Client::connect),
              overload<ToNameAtBroker>(&Client::connect), &Client::getServer);
    using Object = TreflectObject;
    expectRow(kFirst + 5, &Object::attribute, &Object::operation, &Object::meta,
              &Object::getAbsName, &Object::getRelName, &Object::getParent, &Object::getChild,
              &Object::getChilds, &Object::registerChild, &Object::unregisterChild,
              overload<ToName>(&Object::connect), &Object::registerObserver,
              &Object::removeObserver, &TreflectObserverClient::notify);
    expectRow(kFirst + 2, overload<ToServer>(&Object::connect),
              overload<ToNameAtBroker>(&Object::connect));

    using At = TreflectObjectLocationIf;
    expectRow(kFirst, &At::hasOID, &At::getOID, &At::orbId, &At::getInternalOID,
              &At::getNamespaceId, &At::getServer);
    using Stub = TreflectObjectStub;
    expectRow(kFirst, &Stub::hasOID, &Stub::getOID, &Stub::orbId, &Stub::getInternalOID,
              &Stub::getNamespaceId, &Stub::getServer, &Stub::forwardMsg,
              overload<int(bool, unsigned, unsigned, TipprmiStream&, TipprmiStream&) const>(
                  &Stub::dispatch),
              &Stub::meta, &Stub::getAbsName, &Stub::getRelName, &Stub::getParent, &Stub::getChild,
              &Stub::getChilds, &Stub::registerChild, &Stub::unregisterChild,
              overload<ToNameAtBroker>(&Stub::connect), overload<ToName>(&Stub::connect),
              overload<ToServer>(&Stub::connect), &Stub::isConnected, &Stub::className,
              overload<void(TipprmiExceptionContainer const&) const>(&Stub::setExceptionContainer),
              &Stub::getExceptionContainer, &Stub::registerObserver, &Stub::removeObserver);

    using Hook = ClientCallHookBaseV;
    expectRow(kFirst, &Hook::callServer, &Hook::fillParams, &Hook::insertResult,
              &Hook::operationName, &Hook::evaluateResponse);

    /** Shows the hook that completes a class. */
    struct ShownMetaObject : TreflectMetaObject {
        static auto completion() { return &ShownMetaObject::completeMetaInformation; }
    };
    expectRow(kFirst, &TreflectMetaObject::name, ShownMetaObject::completion());
    expectRow(kFirst, &TreflectArrayMetaAttribute::getTied);
    expectRow(kFirst, &TreflectSequenceMetaAttribute::getTied);
    expectRow(kFirst, &TreflectAttribute::operation, &TreflectAttribute::attribute);
    expectRow(kFirst, &TreflectErrorAttribute::operation, &TreflectErrorAttribute::attribute);

    using Server = TreflectServerObject;
    using Watch = TreflectObserver;
    expectRow(kFirst + 9, &Server::getClient, &Server::getParent, &Server::getChild,
              &Server::getChilds, &Server::registerChild, &Server::unregisterChild,
              &Server::getServerClassId, &Server::getServerClassIdSeq, &Server::getAbsName,
              &Server::getRelName, &Server::sendCreationEvent, &Server::sendDeletionEvent,
              overload<bool(unsigned, unsigned const&, unsigned const&,
                            TipprmiSequence<TipprmiAny, 0u> const&)>(&Server::notifyObservers),
              &TreflectObserverSkeleton::notify, &Watch::update, &Watch::getSource,
              &Watch::setSource);
    EXPECT_EQ(slot(&Watch::notify), slot(&TreflectObserverSkeleton::notify));
    using Observed = TreflectObservable;
    expectRow(kFirst, &Observed::registerObserver, &Observed::unRegisterObserver,
              &Observed::notifyObservers);

    using Orb = TreflectORB;
    expectRow(kFirst, &Orb::receive, &Orb::issue, &Orb::receiveError, &Orb::issueError, &Orb::start,
              &Orb::started, &Orb::stop, &Orb::appeared, &Orb::disappeare, &Orb::locateObject,
              &Orb::registerObject, &Orb::unregisterObject, &Orb::forwardMsg, &Orb::resolve);
}

}  // namespace
