// Virtual operations stand in a fixed order of slots: programs that were built against an earlier
// library call them by their number.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

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

using Slots = std::vector<std::size_t>;

/** `count` slots in a row; the two of the destructor come first in each table. */
Slots from(std::size_t first, std::size_t count) {
    Slots slots;
    for (std::size_t i = 0; i < count; ++i)
        slots.push_back(first + i);
    return slots;
}
constexpr std::size_t kBehindDestructor = 2;

using Skeleton = TipprmiObjectSkeleton;
using Client = TipprmiObjectClient;
using Stub = TreflectObjectStub;

TEST(SlotOrder, OfObjectsAndSkeletons) {
    using Base = TipprmiObjectBase;
    EXPECT_EQ((Slots{slot(&Base::getOID), slot(&Base::getInternalOID), slot(&Base::getNamespaceId),
                     slot(&Base::orbId), slot(&Base::dispatch), slot(&Base::setExceptionContainer),
                     slot(&Base::getExceptionContainer), slot(&Base::hasOID),
                     slot(&Skeleton::connect), slot(&Skeleton::getClient)}),
              from(kBehindDestructor, 10));
}

TEST(SlotOrder, OfHandles) {
    EXPECT_EQ(
        (Slots{slot(&Client::forwardMsg), slot(&Client::dispatch),
               slot<void (Client::*)(Skeleton*)>(&Client::connect),
               slot<void (Client::*)(TreflectORB const*, TipprmiOID const&)>(&Client::connect),
               slot(&Client::getServer)}),
        from(kBehindDestructor, 5));
}

TEST(SlotOrder, OfLocationsAndStubs) {
    using At = TreflectObjectLocationIf;
    EXPECT_EQ((Slots{slot(&At::hasOID), slot(&At::getOID), slot(&At::orbId),
                     slot(&At::getInternalOID), slot(&At::getNamespaceId), slot(&At::getServer)}),
              from(kBehindDestructor, 6));
    EXPECT_EQ((Slots{slot(&Stub::hasOID),
                     slot(&Stub::getOID),
                     slot(&Stub::orbId),
                     slot(&Stub::getInternalOID),
                     slot(&Stub::getNamespaceId),
                     slot(&Stub::getServer),
                     slot(&Stub::forwardMsg),
                     slot<int (Stub::*)(bool, unsigned int, unsigned int, TipprmiStream&,
                                        TipprmiStream&) const>(&Stub::dispatch),
                     slot(&Stub::meta),
                     slot(&Stub::getAbsName),
                     slot(&Stub::getRelName),
                     slot(&Stub::getParent),
                     slot(&Stub::getChild),
                     slot(&Stub::getChilds),
                     slot(&Stub::registerChild),
                     slot(&Stub::unregisterChild),
                     slot<void (Stub::*)(TreflectORB const*, TipprmiOID const&)>(&Stub::connect),
                     slot<void (Stub::*)(TipprmiOID const&)>(&Stub::connect),
                     slot<void (Stub::*)(Skeleton*)>(&Stub::connect),
                     slot(&Stub::isConnected),
                     slot(&Stub::className),
                     slot<void (Stub::*)(TipprmiExceptionContainer const&) const>(
                         &Stub::setExceptionContainer),
                     slot(&Stub::getExceptionContainer),
                     slot(&Stub::registerObserver),
                     slot(&Stub::removeObserver)}),
              from(kBehindDestructor, 25));
}

TEST(SlotOrder, OfCallHooks) {
    using Hook = ClientCallHookBaseV;
    EXPECT_EQ((Slots{slot(&Hook::callServer), slot(&Hook::fillParams), slot(&Hook::insertResult),
                     slot(&Hook::operationName), slot(&Hook::evaluateResponse)}),
              from(kBehindDestructor, 5));
}

TEST(SlotOrder, OfReflectiveHandles) {
    using Object = TreflectObject;
    using ObserverClient = TreflectObserverClient;
    std::size_t const behindBase = kBehindDestructor + 5;
    EXPECT_EQ((Slots{slot(&Object::attribute), slot(&Object::operation), slot(&Object::meta),
                     slot(&Object::getAbsName), slot(&Object::getRelName), slot(&Object::getParent),
                     slot(&Object::getChild), slot(&Object::getChilds),
                     slot(&Object::registerChild), slot(&Object::unregisterChild),
                     slot<void (Object::*)(TipprmiOID const&)>(&Object::connect),
                     slot(&Object::registerObserver), slot(&Object::removeObserver),
                     slot(&ObserverClient::notify)}),
              from(behindBase, 14));
    EXPECT_EQ(
        (Slots{slot<void (Object::*)(Skeleton*)>(&Object::connect),
               slot<void (Object::*)(TreflectORB const*, TipprmiOID const&)>(&Object::connect)}),
        from(kBehindDestructor + 2, 2));
}

TEST(SlotOrder, OfBoundMembers) {
    using Attribute = TreflectAttribute;
    using Error = TreflectErrorAttribute;
    EXPECT_EQ((Slots{slot(&Attribute::operation), slot(&Attribute::attribute)}),
              from(kBehindDestructor, 2));
    EXPECT_EQ((Slots{slot(&Error::operation), slot(&Error::attribute)}),
              from(kBehindDestructor, 2));
}

/** Shows the hook that completes a class. */
class ShownMetaObject : public TreflectMetaObject {
public:
    static std::size_t completionSlot() { return slot(&ShownMetaObject::completeMetaInformation); }
};

TEST(SlotOrder, OfMetaObjectsAndMembers) {
    EXPECT_EQ((Slots{slot(&TreflectMetaObject::name), ShownMetaObject::completionSlot()}),
              from(kBehindDestructor, 2));
    EXPECT_EQ(slot(&TreflectArrayMetaAttribute::getTied), kBehindDestructor);
    EXPECT_EQ(slot(&TreflectSequenceMetaAttribute::getTied), kBehindDestructor);
}

TEST(SlotOrder, OfServerObjectsAndObservers) {
    using Server = TreflectServerObject;
    using Watch = TreflectObserver;
    std::size_t const behindBase = kBehindDestructor + 9;
    Slots const slots{
        slot(&Server::getClient),
        slot(&Server::getParent),
        slot(&Server::getChild),
        slot(&Server::getChilds),
        slot(&Server::registerChild),
        slot(&Server::unregisterChild),
        slot(&Server::getServerClassId),
        slot(&Server::getServerClassIdSeq),
        slot(&Server::getAbsName),
        slot(&Server::getRelName),
        slot(&Server::sendCreationEvent),
        slot(&Server::sendDeletionEvent),
        slot<bool (Server::*)(unsigned int, unsigned int const&, unsigned int const&,
                              TipprmiSequence<TipprmiAny, 0u> const&)>(&Server::notifyObservers),
        slot(&TreflectObserverSkeleton::notify),
        slot(&Watch::update),
        slot(&Watch::getSource),
        slot(&Watch::setSource)};
    EXPECT_EQ(slots, from(behindBase, 17));
    EXPECT_EQ(slot(&Watch::notify), slot(&TreflectObserverSkeleton::notify));

    using Observed = TreflectObservable;
    EXPECT_EQ((Slots{slot(&Observed::registerObserver), slot(&Observed::unRegisterObserver),
                     slot(&Observed::notifyObservers)}),
              from(kBehindDestructor, 3));
}

TEST(SlotOrder, OfBrokers) {
    using Orb = TreflectORB;
    EXPECT_EQ((Slots{slot(&Orb::receive), slot(&Orb::issue), slot(&Orb::receiveError),
                     slot(&Orb::issueError), slot(&Orb::start), slot(&Orb::started),
                     slot(&Orb::stop), slot(&Orb::appeared), slot(&Orb::disappeare),
                     slot(&Orb::locateObject), slot(&Orb::registerObject),
                     slot(&Orb::unregisterObject), slot(&Orb::forwardMsg), slot(&Orb::resolve)}),
              from(kBehindDestructor, 14));
}

}  // namespace
