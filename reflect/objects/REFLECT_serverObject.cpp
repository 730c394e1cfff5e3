#include <cstring>
#include <list>
#include <set>
#include <typeinfo>
#include <utility>

#include "handler_threads/WithPermission.h"
#include "ipprmi/StandardMethods.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/OutOfMemory.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/TreflectDeadline.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectServerObject.h"
#include "reflect/broker/BrokerLifecycle.h"
#include "reflect/notices/ClassRecords.h"

namespace {

constexpr char kSource[] = "REFLECT_serverObject";

/**
 * One question for an object's absolute name. All that are under way in this process are known, so
 * that an object that is an ancestor of itself does not ask for ever: on one thread, or over other
 * processes, whose questions come back on other threads.
 */
class NameUnderWay {
public:
    explicit NameUnderWay(TreflectServerObject const* object)
        : object_(object), outer_(innermost_), next_(first_) {
        innermost_ = this;
        first_ = this;
        if (next_)
            next_->previous_ = this;
    }
    ~NameUnderWay() {
        innermost_ = outer_;
        (previous_ ? previous_->next_ : first_) = next_;
        if (next_)
            next_->previous_ = previous_;
    }
    NameUnderWay(NameUnderWay const&) = delete;
    NameUnderWay& operator=(NameUnderWay const&) = delete;

    /** Whether the calling thread is asking for the same name already. */
    bool isRepeated() const {
        NameUnderWay const* outer = outer_;
        while (outer && outer->object_ != object_)
            outer = outer->outer_;
        return outer;
    }
    /** Whether another thread is. */
    bool isAskedElsewhere() const OSW_REQUIRES_PERMISSION {
        NameUnderWay const* other = next_;
        while (other && other->object_ != object_)
            other = other->next_;
        return other;
    }

private:
    static thread_local NameUnderWay const* innermost_;
    static NameUnderWay* first_ OSW_GUARDED_BY_PERMISSION;

    TreflectServerObject const* const object_;
    NameUnderWay const* const outer_;
    NameUnderWay* next_ OSW_GUARDED_BY_PERMISSION;
    NameUnderWay* previous_ OSW_GUARDED_BY_PERMISSION = nullptr;
};

thread_local NameUnderWay const* NameUnderWay::innermost_ = nullptr;
NameUnderWay* NameUnderWay::first_ = nullptr;

using Address = std::pair<TreflectOrbId, unsigned int>;

Address addressOf(TreflectObject const& object) {
    TreflectObjectStub const& stub = *object.getStub_();
    return {stub.orbId(), stub.getInternalOID()};
}

/** Whether `address` is among `parent` and its ancestors, which are asked one after the other. */
bool leadsTo(TreflectObject const& parent, Address const& address) {
    constexpr std::size_t kDeepest = 1000;  // whatever other processes answer
    std::set<Address> seen;
    TreflectObject at;
    at.share_(parent);
    while (at.isConnected() && seen.size() < kDeepest) {
        Address const here = addressOf(at);
        if (here == address)
            return true;
        if (!seen.insert(here).second)
            return false;
        at.share_(at.getParent());
    }
    return false;
}

/** The name that an operation has in the table of a class, or of its bases; "" without one. */
std::string operationOf(unsigned int classId, unsigned int mc) {
    std::list<TreflectMetaOperation*> operations;
    if (TreflectMetaObject const* const meta =
            InterfaceRepository::instance()->findInterface_(classId))
        meta->operationList(operations);
    for (TreflectMetaOperation const* const operation : operations) {
        if (static_cast<unsigned int>(operation->id()) == mc)
            return operation->name();
    }
    return {};
}

/** Whether the tables of two classes have a method code for operations of different names. */
bool haveDifferentOperations(unsigned int a, unsigned int b, unsigned int mc) {
    std::string const first = operationOf(a, mc);
    std::string const second = operationOf(b, mc);
    return !first.empty() && !second.empty() && first != second;
}

}  // namespace

TreflectServerObject::TreflectServerObject(TipprmiOID const& oid, TreflectObject const* parent,
                                           std::string const& name)
    : TipprmiObjectSkeleton(nullptr, oid) {
    WithPermission const permission;
    keepName(name);
    if (name.find('/') != std::string::npos)
        REFLECTORB_LOG(3, "REFLECT_serverObject",
                       "name \"%s\" has a \"/\": no absolute name leads to this object",
                       name.c_str());
    setReflective(this);
    client_.reset();
    if (parent) {
        TreflectDeadline::Suspension const untilItIsEntered;
        parent_ = *parent;
        parent_.registerChild(name, *getClient());
    }
}

// Out of the broker first, and handles of this process end: nobody is to call it, or to go on with
// a call that waits for an observer, while it waits for its parent. The broker may go meanwhile.
TreflectServerObject::~TreflectServerObject() {
    if (BrokerLifecycle::instance().isAbandoned())
        return;
    OSWrap::DisableCancelStateGuard const noCancel(true);
    WithPermission const permission;
    endLife();
    if (TreflectORB* const orb = getORB()) {
        orb->unregisterObject(this);
        ClassRecords::forgetEverywhere(*this);
        setORB(nullptr);
    }
    TreflectObjectHandler::invalidateStubsOf(this);
    TreflectDeadline::Suspension const untilItIsTold;
    bool const told = OSWrap::withMemory([this] {
        if (parent_.isConnected())
            parent_.unregisterChild(objectName());
    });
    if (!told)
        REFLECTORB_LOG(2, kSource, "No memory to tell the parent of an object that it has gone");
}

void TreflectServerObject::keepName(std::string const& name) {
    char* place = shortName_;
    if (name.size() >= kShortNameSize) {
        longName_ = std::make_unique<char[]>(name.size() + 1);
        place = longName_.get();
    }
    std::memcpy(place, name.c_str(), name.size());
}

// ---- What every reflective object answers ------------------------------------------------------

TreflectObject* TreflectServerObject::getClient() const {
    WithPermission const permission;
    if (!client_)
        client_ = std::make_unique<TreflectObject>(this);
    return static_cast<TreflectObject*>(client_.get());
}

TreflectObject TreflectServerObject::getParent() const {
    return parent_;
}

// The copy looks for a child that was registered by its identifier before it was there. It is made
// of a handle that looks for nothing, since the children may change meanwhile, and this object may
// be destroyed.
TreflectObject TreflectServerObject::getChild(std::string const& name) const {
    TreflectObject found;
    if (children_) {
        if (auto const child = children_->find(name); child != children_->end())
            found.share_(child->second);
    }
    return TreflectObject(found);
}

// Copies that look for nothing: the permission is kept, so the children stay what they are.
TipprmiSequence<TreflectObject, 0u> TreflectServerObject::getChilds() const {
    TipprmiSequence<TreflectObject, 0u> all;
    if (!children_)
        return all;
    all.setLength(static_cast<unsigned int>(children_->size()));
    unsigned int at = 0;
    for (auto const& child : *children_)
        all[at++].share_(child.second);
    return all;
}

void TreflectServerObject::registerChild(std::string const& name, TreflectObject const& child) {
    if (!children_)
        children_ = std::make_unique<std::map<std::string, TreflectObject>>();
    (*children_)[name].share_(child);
}

void TreflectServerObject::unregisterChild(std::string const& name) {
    if (children_)
        children_->erase(name);
}

// The object may be destroyed while its parent is asked. A parent given by its identifier may turn
// out to be a descendant, or the object itself. If that leads over another process, the question
// comes back while it is under way: then, which two who ask at the same time may cause as well, the
// ancestors are looked at first.
std::string TreflectServerObject::getAbsName() const {
    WithPermission const permission;
    std::string const relative = getRelName();
    std::string const own = "/" + relative;
    if (!parent_.isConnected())
        return own;
    TreflectObject parent;
    parent.share_(parent_);
    NameUnderWay const name(this);
    bool const isOwnAncestor =
        name.isRepeated() ||
        (name.isAskedElsewhere() && leadsTo(parent, Address(orbId(), getInternalOID())));
    if (isOwnAncestor) {
        REFLECTORB_LOG(3, kSource, "object \"%s\" is its own ancestor", relative.c_str());
        return own;
    }
    return parent.getAbsName() + own;
}

std::string TreflectServerObject::getRelName() const {
    return objectName();
}

// A derived class answers for its ids, and none has been built or is left while this class's
// constructor or destructor waits for the parent.
TipprmiSequence<unsigned int, 0u> TreflectServerObject::getClassIds() const {
    if (typeid(*this) == typeid(TreflectServerObject))
        return {};
    return getServerClassIdSeq();
}

// ---- Calls from other processes ----------------------------------------------------------------

bool TreflectServerObject::dispatch(bool withResponse, unsigned int cc, unsigned int mc,
                                    TipprmiStream& in, TipprmiStream& out) {
    if (cc == standard::guards::kClass && mc == standard::guards::kRegister)
        serveGuardRegistration(in, out);
    else if (cc == standard::guards::kClass && mc == standard::guards::kRemoveLost)
        serveRemovalOfLostGuards(in, out);
    else
        return serveStandard(mc, in, out) ||
               TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
    return true;
}

/** The methods that every reflective object serves by itself. */
struct TreflectServerObject::StandardMethod {
    using Object = TreflectServerObject;
    unsigned int code;
    void (*serve)(Object& object, TipprmiStream& in, TipprmiStream& out);

    /** Null when the code is that of no such method. */
    static StandardMethod const* find(unsigned int code);

    template <auto Function>
    static void pass(Object& object, TipprmiStream& in, TipprmiStream& out) {
        (object.*Function)(in, out);
    }
    template <auto Getter>
    static void answer(Object& object, TipprmiStream&, TipprmiStream& out) {
        object.prepareResponseStream_(out);
        out << (object.*Getter)();
    }
};

TreflectServerObject::StandardMethod const* TreflectServerObject::StandardMethod::find(
    unsigned int code) {
    static constexpr StandardMethod kMethods[] = {
        {standard::kRegisterObserver, pass<&Object::serveObserverRegistration>},
        {standard::kRemoveObserver, pass<&Object::serveObserverRemoval>},
        {standard::kGetAbsName, answer<&Object::getAbsName>},
        {standard::kGetRelName, answer<&Object::getRelName>},
        {standard::kGetParent, answer<&Object::getParent>},
        {standard::kGetChild, pass<&Object::serveChild>},
        {standard::kGetChilds, answer<&Object::getChilds>},
        {standard::kRegisterChild, pass<&Object::serveChildRegistration>},
        {standard::kUnregisterChild, pass<&Object::serveChildRemoval>},
        {standard::kGetClassIds, answer<&Object::getClassIds>},
    };
    for (StandardMethod const& method : kMethods) {
        if (method.code == code)
            return &method;
    }
    return nullptr;
}

bool TreflectServerObject::serveStandard(unsigned int mc, TipprmiStream& in, TipprmiStream& out) {
    StandardMethod const* const method = StandardMethod::find(mc);
    if (method)
        method->serve(*this, in, out);
    return method;
}

void TreflectServerObject::serveChildRemoval(TipprmiStream& in, TipprmiStream& out) {
    std::string name;
    in >> name;
    unregisterChild(name);
    prepareResponseStream_(out);
}

// Reading or copying a handle may look for the object that it means, and this one be destroyed
// meanwhile. Its caller is then answered as one who comes too late.

void TreflectServerObject::serveChild(TipprmiStream& in, TipprmiStream& out) {
    std::string name;
    in >> name;
    Life const life(*this);
    TreflectObject const child = getChild(name);
    if (life.ended()) {
        writeGeneralException(out, TipprmiFailure::kNotServed);
        return;
    }
    prepareResponseStream_(out);
    out << child;
}

void TreflectServerObject::serveObserverRegistration(TipprmiStream& in, TipprmiStream& out) {
    unsigned int kind = 0;
    unsigned int cc = 0;
    unsigned int mc = 0;
    TreflectObserverClient observer;
    Life const life(*this);
    OnBehalf const sender(in.msg().originator());
    in >> kind >> cc >> mc >> observer;
    if (life.ended() || !makeRoomFor(observer)) {
        writeGeneralException(out, TipprmiFailure::kNotServed);
        return;
    }
    registerObserver(kind, cc, mc, observer);
    prepareResponseStream_(out);
}

void TreflectServerObject::serveObserverRemoval(TipprmiStream& in, TipprmiStream& out) {
    TreflectObserverClient observer;
    Life const life(*this);
    in >> observer;
    if (life.ended()) {
        writeGeneralException(out, TipprmiFailure::kNotServed);
        return;
    }
    unRegisterObserver(observer);
    prepareResponseStream_(out);
}

void TreflectServerObject::serveGuardRegistration(TipprmiStream& in, TipprmiStream& out) {
    unsigned int cc = 0;
    unsigned int mc = 0;
    TreflectObserverClient observer;
    Life const life(*this);
    OnBehalf const sender(in.msg().originator());
    in >> cc >> mc >> observer;
    bool const readable = !life.ended() && !in.hasUnmarshallingFailed();
    if (!readable || !(hasGuard(cc, mc, observer) || makeRoomFor(observer))) {
        writeGeneralException(out, TipprmiFailure::kNotServed);
        return;
    }
    registerGuard(cc, mc, observer);
    prepareResponseStream_(out);
    out << true;
}

void TreflectServerObject::serveRemovalOfLostGuards(TipprmiStream& in, TipprmiStream& out) {
    unsigned int cc = 0;
    unsigned int mc = 0;
    in >> cc >> mc;
    unsigned int const count = in.hasUnmarshallingFailed() ? 0 : removeLostGuards(cc, mc);
    prepareResponseStream_(out);
    out << count;
}

void TreflectServerObject::serveChildRegistration(TipprmiStream& in, TipprmiStream& out) {
    std::string name;
    TreflectObject child;
    Life const life(*this);
    in >> name >> child;
    if (life.ended()) {
        writeGeneralException(out, TipprmiFailure::kNotServed);
        return;
    }
    registerChild(name, child);
    prepareResponseStream_(out);
}

// Who wrote base and derived class each with codes from 1 calls the base's operations, not those of
// the derived class that have their codes.
bool TreflectServerObject::concerns(unsigned int cc, unsigned int declaring,
                                    unsigned int mc) const {
    if (cc == declaring)
        return true;
    TipprmiSequence<unsigned int, 0u> const ids = getClassIds();
    bool isBase = false;
    for (unsigned int i = 0; i < ids.getLength(); ++i) {
        if (ids[i] == cc)
            return !isBase || !haveDifferentOperations(cc, declaring, mc);
        isBase = isBase || ids[i] == declaring;
    }
    return false;
}

bool TreflectServerObject::refuseForeignCall(unsigned int mc, TipprmiStream& in,
                                             TipprmiStream& out) {
    return TipprmiObjectSkeleton::dispatch(true, 0, mc, in, out);
}

// ---- Observers of creation and deletion ---------------------------------------------------------

void TreflectServerObject::sendCreationEvent(TreflectMetaObject const* metaObject) const {
    announce(metaObject, &TreflectORB::notifyCreation);
}

void TreflectServerObject::sendDeletionEvent(TreflectMetaObject const* metaObject) const {
    announce(metaObject, &TreflectORB::notifyDeletion);
}

void TreflectServerObject::sendCreationEvents() const {
    announceAsEach(&TreflectServerObject::sendCreationEvent);
}

void TreflectServerObject::sendDeletionEvents() const {
    announceAsEach(&TreflectServerObject::sendDeletionEvent);
}

void TreflectServerObject::announceAsEach(
    void (TreflectServerObject::*event)(TreflectMetaObject const*) const) const {
    Life const life(*this);
    TipprmiSequence<unsigned int, 0u> const ids = getServerClassIdSeq();
    for (unsigned int i = 0; i < ids.getLength() && !life.ended(); ++i) {
        if (TreflectMetaObject const* const meta =
                InterfaceRepository::instance()->findInterface(ids[i]))
            (this->*event)(meta);
    }
}

// The line names the creation in both cases, which is what those who search logs for it expect.
void TreflectServerObject::announce(
    TreflectMetaObject const* metaObject,
    bool (TreflectORB::*notify)(unsigned int, TreflectServerObject const&)) const {
    OSWrap::DisableCancelStateGuard const noCancel(true);
    WithPermission const permission;
    bool const told = OSWrap::withMemory([&] {
        TreflectMetaObject const* const mo = metaObject ? metaObject : getClient()->meta();
        if (!mo)
            REFLECTORB_LOG(3, kSource, "TreflectServerObject::sendCreationEvent(): no meta object");
        else if (TreflectORB* const orb = getORB())
            (orb->*notify)(mo->getClassId(), *this);
    });
    if (!told)
        REFLECTORB_LOG(2, kSource, "No memory to tell all observers of object 0x%X",
                       getInternalOID());
}
