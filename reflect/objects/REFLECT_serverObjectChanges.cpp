// What a server object tells its observers: of calls, and of changes of its attributes.
#include <exception>
#include <utility>

#include "handler_threads/WithPermission.h"
#include "logging/LineLimit.h"
#include "oswrap/CancelGuards.h"
#include "reflect/TreflectDeadline.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectServerObject.h"
#include "reflect/broker/ContainErrors.h"
#include "reflect/objects/AttributeChange.h"

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
 * have changed since it was asked for. */
class TreflectServerObject::ChangeUnderWay {
public:
    ChangeUnderWay(TreflectServerObject& object, ChangeKey const& key)
        : object_(object), life_(object), key_(key), next_(object.changes_) {
        object.changes_ = this;
    }
    ~ChangeUnderWay() {
        if (life_.ended())
            return;
        ChangeUnderWay** at = &object_.changes_;
        while (*at != this)
            at = &(*at)->next_;
        *at = next_;
    }
    ChangeUnderWay(ChangeUnderWay const&) = delete;
    ChangeUnderWay& operator=(ChangeUnderWay const&) = delete;

    /** Has the change of this key told again; false when none is being told. Who is still to be
     * told asks for the value by himself, instead of being told an earlier one. */
    static bool repeat(ChangeUnderWay* first, unsigned int cc, unsigned int mc) {
        while (first && !(first->key_.classId == cc && first->key_.methodCode == mc))
            first = first->next_;
        if (first) {
            first->isDue_ = true;
            first->values_.setLength(0);
        }
        return first;
    }
    /** Whether the observers are to be told, for the first time or again. */
    bool takeTurn() { return !life_.ended() && std::exchange(isDue_, false); }
    /** Asks for the value, and tells it. */
    void tell(TreflectObject const& source, TreflectMetaAttribute const& attribute) {
        std::optional<TipprmiAny> value;
        {
            ReadForNotice const unobserved(object_, attribute);
            value = wholeValue(source, attribute);
        }
        if (life_.ended())
            return;
        values_.setLength(0);
        if (value && !isDue_)
            values_.push_back(*value);
        object_.TreflectObservable::notifyObservers(source, kAfterCalls, key_.classId,
                                                    key_.methodCode, values_);
    }

private:
    // All guarded by the run permission.
    TreflectServerObject& object_;  // while life_ lasts
    Life const life_;
    ChangeKey const key_;
    ChangeUnderWay* next_;
    bool isDue_ = true;
    TipprmiSequence<TipprmiAny, 0u> values_;  // what the observers are being told
};

// The observers get a handle of the call's own: this object may be destroyed while one is waited
// for. Who is told of a set and of a change at the same time hears of the last value last: the
// change is told once more.
bool TreflectServerObject::notifyObservers(unsigned int kind, unsigned int const& cc,
                                           unsigned int const& mc,
                                           TipprmiSequence<TipprmiAny, 0u> const& arguments) {
    if (kind != kBeforeCalls)
        ChangeUnderWay::repeat(changes_, cc, mc);
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
      thrown_(std::uncaught_exceptions()),
      outer_(innermost_) {
    innermost_ = this;
}

TreflectServerObject::ObservedCall::~ObservedCall() {
    innermost_ = outer_;
    if (changed_ && std::uncaught_exceptions() > thrown_ && !life_.ended())
        tellAfterThrow();
}

// What is thrown here would end the process.
void TreflectServerObject::ObservedCall::tellAfterThrow() const {
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
    ChangeUnderWay change(*this, *key);
    TreflectObject const source(*getClient());
    while (change.takeTurn())
        change.tell(source, attribute);
}
