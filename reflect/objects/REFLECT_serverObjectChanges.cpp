// What a server object tells its observers: of calls, and of changes of its attributes.
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "handler_threads/WithPermission.h"
#include "logging/LineLimit.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/Thread.h"
#include "reflect/TreflectDeadline.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectServerObject.h"
#include "reflect/broker/CallbackScope.h"
#include "reflect/broker/ContainErrors.h"
#include "reflect/notices/WatchTimer.h"
#include "reflect/objects/AttributeChange.h"
#include "reflect/objects/ServedCall.h"

namespace {

constexpr char kSource[] = "REFLECT_serverObject";

/** Marks, for a scope, that the calling thread asks an object of this process for a value that is
 * to be told: nobody is to be told of that call. */
class ReadForNotice {
public:
    ReadForNotice(TreflectServerObject const& object, TreflectMetaAttribute const& attribute)
        : object_(&object), operation_(attribute.metaOperGet()), outer_(innermost_) {
        innermost_ = this;
    }
    ~ReadForNotice() { innermost_ = outer_; }
    ReadForNotice(ReadForNotice const&) = delete;
    ReadForNotice& operator=(ReadForNotice const&) = delete;

    static bool isOf(TreflectServerObject const* object, unsigned int mc) {
        ReadForNotice const* const inner = innermost_;
        return inner && inner->object_ == object && inner->operation_ &&
               static_cast<unsigned int>(inner->operation_->id()) == mc;
    }

private:
    static thread_local ReadForNotice const* innermost_;

    TreflectServerObject const* const object_;
    TreflectMetaOperation const* const operation_;
    ReadForNotice const* const outer_;
};

thread_local ReadForNotice const* ReadForNotice::innermost_ = nullptr;

}  // namespace

// ---- Calls -------------------------------------------------------------------------------------

/** A change that is being told, among those of its object; it is told again when the attribute may
 * have changed since it was asked for. Used under the run permission. */
class TreflectServerObject::ChangeUnderWay {
public:
    ChangeUnderWay(TreflectServerObject& object, ChangeKey const& key,
                   TreflectMetaAttribute const& attribute)
        : object_(object),
          life_(object),
          key_(key),
          attribute_(attribute),
          next_(std::exchange(object.changes_, this)) {}
    ~ChangeUnderWay();
    ChangeUnderWay(ChangeUnderWay const&) = delete;
    ChangeUnderWay& operator=(ChangeUnderWay const&) = delete;

    /** Has the change of this key told again; false when none is being told. Who is still to be
     * told asks for the value by himself, instead of being told an earlier one. */
    static bool repeat(ChangeUnderWay* first, unsigned int cc, unsigned int mc) {
        while (first && !(first->key_.classId == cc && first->key_.methodCode == mc))
            first = first->next_;
        if (first)
            first->becomeDue();
        return first;
    }
    /** Tells, and again what observers of this thread have changed meanwhile. What others have
     * changed it tells once; the thread ReflectWatch goes on, for they need not ever stop. */
    void tellAll() {
        while (!life_.ended() && isDue_ && !isPassedOn())
            tellOnce();
    }

private:
    class PassedOn;

    void becomeDue() {
        isDue_ = true;
        isOfOthers_ = isOfOthers_ || OSWrap::Thread::getCurrentId() != teller_;
        values_.setLength(0);
    }
    bool isToBeTold() const { return !life_.ended() && (isDue_ || isUnfinished_); }
    bool isPassedOn() { return isOfOthers_ && std::exchange(hasToldOthers_, true) && passOn(); }
    void tellOnce();
    void tellPassedOn();
    std::optional<TipprmiAny> ask(TreflectObject const& source);
    void notify(TreflectObject const& source);
    bool passOn();
    void tellRest();

    // All guarded by the run permission.
    TreflectServerObject& object_;  // while life_ lasts
    Life const life_;
    ChangeKey const key_;
    TreflectMetaAttribute const& attribute_;  // while life_ lasts
    unsigned long const teller_ = OSWrap::Thread::getCurrentId();
    ChangeUnderWay* next_;
    bool isDue_ = true;
    bool isUnfinished_ = false;   // not all observers have been told in the turn that has begun
    bool isOfOthers_ = false;     // another thread than the teller has made it due
    bool hasToldOthers_ = false;  // of what another thread had changed
    TipprmiSequence<TipprmiAny, 0u> values_;  // what the observers are being told
};

/** A change that the thread ReflectWatch tells. */
class TreflectServerObject::ChangeUnderWay::PassedOn final : public WatchTimer::Due {
public:
    explicit PassedOn(ChangeUnderWay const& by) : change_(by.object_, by.key_, by.attribute_) {}

    // One turn, so that the watches get theirs.
    void due() override {
        handlerthreads::trustPermission();
        if (!change_.isToBeTold())
            return;
        bool const hadMemory = OSWrap::withMemory([this] { change_.tellPassedOn(); });
        if (change_.isToBeTold())
            begin();
        if (!hadMemory)
            throw std::bad_alloc();
    }
    /** Without a thread for it nothing is left to tell here. */
    bool begin() OSW_REQUIRES_PERMISSION {
        bool const begun = WatchTimer::instance().callNow(shared_from_this());
        if (!begun)
            change_.isDue_ = change_.isUnfinished_ = false;
        return begun;
    }

private:
    ChangeUnderWay change_;
};

TreflectServerObject::ChangeUnderWay::~ChangeUnderWay() {
    if (isToBeTold())
        tellRest();
    if (life_.ended())
        return;
    ChangeUnderWay** at = &object_.changes_;
    while (*at != this)
        at = &(*at)->next_;
    *at = next_;
}

/** When the thread that tells is being unwound: what others have changed is not told by anybody
 * else, and what it has begun, some have not heard. */
void TreflectServerObject::ChangeUnderWay::tellRest() {
    OSWrap::DisableCancelStateGuard const noCancel;
    containErrors(
        [this] {
            if (!passOn())
                tellOnce();
        },
        [](char const*) {});
}

/** Has ReflectWatch tell what is left, in the place of this one; false when there is no memory or
 * no thread for that. */
bool TreflectServerObject::ChangeUnderWay::passOn() {
    handlerthreads::assertPermission();
    std::shared_ptr<PassedOn> passedOn;
    if (!OSWrap::withMemory([&] { passedOn = std::make_shared<PassedOn>(*this); }) ||
        !passedOn->begin())
        return false;
    isDue_ = isUnfinished_ = false;
    return true;
}

/** Asks for the value, and tells it. */
void TreflectServerObject::ChangeUnderWay::tellOnce() {
    isDue_ = isOfOthers_ = false;
    isUnfinished_ = true;
    TreflectObject const source(*object_.getClient());
    std::optional<TipprmiAny> const value = ask(source);
    if (life_.ended())
        return;
    values_.setLength(0);
    if (value && !isDue_)
        values_.push_back(*value);
    notify(source);
}

/** What the object throws has no other caller on the thread ReflectWatch: the observers ask by
 * themselves, then. */
void TreflectServerObject::ChangeUnderWay::tellPassedOn() {
    CallbackScope const restored;
    bool const asked = containErrors([this] { tellOnce(); }, [](char const*) {});
    if (asked || life_.ended())
        return;
    values_.setLength(0);
    notify(TreflectObject(*object_.getClient()));
}

// What the object throws is its answer: it is not asked again.
std::optional<TipprmiAny> TreflectServerObject::ChangeUnderWay::ask(TreflectObject const& source) {
    try {
        ReadForNotice const unobserved(object_, attribute_);
        return wholeValue(source, attribute_);
    } catch (...) {
        if (std::current_exception())  // else the thread is being cancelled
            isUnfinished_ = false;
        throw;
    }
}

void TreflectServerObject::ChangeUnderWay::notify(TreflectObject const& source) {
    isUnfinished_ = true;
    object_.TreflectObservable::notifyObservers(source, kAfterCalls, key_.classId, key_.methodCode,
                                                values_);
    isUnfinished_ = false;
}

// The observers get a handle of the call's own: this object may be destroyed while one is waited
// for. Who is told of a set and of a change at the same time hears of the last value last: the
// change is told once more.
bool TreflectServerObject::notifyObservers(unsigned int kind, unsigned int const& cc,
                                           unsigned int const& mc,
                                           TipprmiSequence<TipprmiAny, 0u> const& arguments) {
    if (kind != kBeforeCalls)
        ChangeUnderWay::repeat(changes_, cc, mc);
    if (ServedCall* const call = ServedCall::of(*this))
        kind == kBeforeCalls ? call->begins(cc, mc) : call->ends(cc, mc, arguments);
    TreflectObject const source(*getClient());
    return TreflectObservable::notifyObservers(source, kind, cc, mc, arguments);
}

bool TreflectServerObject::isReadForNotice(unsigned int mc) const {
    return ReadForNotice::isOf(this, mc);
}

thread_local TreflectServerObject::ObservedCall* TreflectServerObject::ObservedCall::innermost_ =
    nullptr;

TreflectServerObject::ObservedCall::ObservedCall(TreflectServerObject& object, unsigned int classId,
                                                 unsigned int methodCode)
    : object_(object),
      life_(object),
      classId_(classId),
      methodCode_(methodCode),
      outer_(innermost_) {
    innermost_ = this;
}

TreflectServerObject::ObservedCall::~ObservedCall() {
    innermost_ = outer_;
    if (changed_ && !hasReturned_ && !life_.ended())
        tellUnobserved();
}

// What is thrown here would end the process.
void TreflectServerObject::ObservedCall::tellUnobserved() const {
    OSWrap::DisableCancelStateGuard const noCancel;
    containErrors([this] { object_.tellChange(*changed_); }, [](char const*) {});
}

bool TreflectServerObject::ObservedCall::tellsOf(TreflectServerObject const& object,
                                                 TreflectMetaAttribute const& changed,
                                                 unsigned int classId, unsigned int methodCode) {
    ObservedCall* call = innermost_;
    while (call && !(!call->life_.ended() && &call->object_ == &object &&
                     call->classId_ == classId && call->methodCode_ == methodCode))
        call = call->outer_;
    if (call)
        call->changed_ = &changed;
    return call;
}

// ---- Changes -----------------------------------------------------------------------------------

void TreflectServerObject::changed(std::string const& attribute) {
    WithPermission const permission;
    if (!isObservedAfterCalls())
        return;
    TreflectMetaObject const* const meta = getClient()->meta();
    if (TreflectMetaAttribute const* const found =
            meta ? meta->metaAttribute(attribute) : nullptr) {
        tellChange(*found);
        return;
    }
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource, "attribute \"%s\" has changed, and is none of \"%s\"",
                           attribute.c_str(), meta ? meta->name().c_str() : "?");
}

// Not bounded by a deadline of the caller: who is not told keeps a value that is none any more.
// A value that cannot be asked for now is left to those who are told.
void TreflectServerObject::tellChange(TreflectMetaAttribute const& attribute) {
    std::optional<ChangeKey> const key = ChangeKey::of(attribute);
    if (!key || !postObserverAvailable(key->classId, key->methodCode) ||
        ObservedCall::tellsOf(*this, attribute, key->classId, key->methodCode) ||
        ChangeUnderWay::repeat(changes_, key->classId, key->methodCode))
        return;
    TreflectDeadline::Suspension const untilAllAreTold;
    ChangeUnderWay(*this, *key, attribute).tellAll();
}
