#include "reflect/TreflectWatch.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "handler_threads/WithPermission.h"
#include "logging/LineLimit.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/Thread.h"
#include "reflect/TreflectDeadline.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectObservable.h"
#include "reflect/TreflectObserver.h"
#include "reflect/broker/AllLevelsReleased.h"
#include "reflect/broker/BrokerLifecycle.h"
#include "reflect/broker/CallbackScope.h"
#include "reflect/broker/ContainErrors.h"
#include "reflect/notices/WatchTimer.h"
#include "reflect/objects/AttributeChange.h"

namespace {

using std::chrono::milliseconds;
using Values = TipprmiSequence<TipprmiAny, 0u>;

constexpr char kSource[] = "TreflectWatch";

// Longer than anything lives, and far below what a time holds.
constexpr milliseconds kLongest = std::chrono::hours(10 * 365 * 24);

/** Whether what a notice has in it can only be the value. Observers of a set are told its results,
 * too: the class must tell that there are none. */
bool isToldNothingElse(TreflectMetaAttribute const& attribute) {
    TreflectMetaOperation const* const set = attribute.metaOperSet();
    return !set || (!set->argumentTypes().empty() && set->resultTypes().empty());
}

}  // namespace

/** What a watch knows and does. Outlasts the watch while somebody is in it. */
class TreflectAttributeWatch::State final : public WatchTimer::Due {
public:
    State(TreflectObject const& object, TreflectMetaAttribute const& attribute, Reaction reaction,
          std::chrono::milliseconds leastInterval, std::shared_ptr<TreflectValueCheck const> check)
        : attribute_(attribute),
          isToldNothingElse_(isToldNothingElse(attribute)),
          check_(std::move(check)),
          least_(0, std::chrono::nanoseconds(std::clamp(leastInterval, milliseconds(0), kLongest))
                        .count()),
          reaction_(std::move(reaction)) {
        object_.share_(object);
        if (leastInterval > milliseconds(0))
            use_.emplace();
    }

    /** Registers first, so that no change is missed, and then asks for the value. False when the
     * object has not answered that it has registered the watch. */
    bool begin(ChangeKey const& key) OSW_REQUIRES_PERMISSION {
        if (!registerAt(key))
            return false;
        {
            TreflectDeadline::Suspension const untilItIsKnown;
            ask(++asked_);
        }
        tell();
        return true;
    }
    void end() OSW_REQUIRES_PERMISSION {
        ended_ = true;
        WatchTimer::instance().forget(*this);
        containErrors([this] { unregister(); }, [](char const*) {});
        observer_.reset();
        awaitReaction();
        use_.reset();
        if (teller_ == 0)
            reaction_ = nullptr;
    }
    /** Somebody has set the attribute, or the object says that it has changed. */
    void noticed(Values const& values) {
        handlerthreads::trustPermission();
        TreflectDeadline::Suspension const untilItIsTold;
        unsigned long long const turn = ++asked_;
        if (isToldNothingElse_ && values.getLength() == 1)
            take(turn, values[0]);
        else
            ask(turn);
        tell();
    }
    void due() override {
        handlerthreads::trustPermission();
        isTimed_ = false;
        tell();
    }

private:
    /** Hears of changes, wherever they happen. */
    class Observer final : public TreflectObserver {
    public:
        explicit Observer(std::weak_ptr<State> state) : state_(std::move(state)) {}

        // It may have been destroyed when the state returns. Who throws is told no more.
        bool notify(TreflectObject const&, unsigned int const&, unsigned int const&,
                    Values const& values, bool& alive) override {
            alive = true;
            std::shared_ptr<State> const state = state_.lock();
            if (state)
                containErrors([&] { state->noticed(values); },
                              [&](char const*) { state->logUnread(); });
            return true;
        }
        bool update() override { return true; }

    private:
        std::weak_ptr<State> const state_;
    };
    class Telling;
    class RestIsTold;

    bool registerAt(ChangeKey const& key) OSW_REQUIRES_PERMISSION;
    void unregister();
    void logUnread() const;
    void ask(unsigned long long turn) OSW_REQUIRES_PERMISSION;
    void take(unsigned long long turn, TipprmiAny const& value) OSW_REQUIRES_PERMISSION;
    void tell() OSW_REQUIRES_PERMISSION;
    void tellNext() OSW_REQUIRES_PERMISSION;
    bool isDue() OSW_REQUIRES_PERMISSION { return !ended_ && isNews() && !isHeldBack(); }
    bool isHeldBack() OSW_REQUIRES_PERMISSION;
    bool isNews() const OSW_REQUIRES_PERMISSION {
        return latest_ && !(told_ && areEqual(*latest_, *told_));
    }
    bool fits(TipprmiAny const& value) const;
    void react(TipprmiAny const& value);
    void awaitReaction();

    TreflectMetaAttribute const& attribute_;
    bool const isToldNothingElse_;
    std::shared_ptr<TreflectValueCheck const> const
        check_;  // null when there is nothing to be looked at
    OSWrap::TimeSpec const least_;
    std::optional<WatchTimer::Use> use_ OSW_GUARDED_BY_PERMISSION;  // with a least interval
    TreflectObject object_ OSW_GUARDED_BY_PERMISSION;
    Reaction reaction_;  // changed when nobody is in it
    std::unique_ptr<Observer> observer_ OSW_GUARDED_BY_PERMISSION;
    bool ended_ OSW_GUARDED_BY_PERMISSION = false;

    // Each notice has its turn when it comes in, each question when it is asked. What has been
    // overtaken meanwhile is dropped.
    unsigned long long asked_ OSW_GUARDED_BY_PERMISSION = 0;
    unsigned long long known_ OSW_GUARDED_BY_PERMISSION = 0;  // the turn of latest_
    std::optional<TipprmiAny> latest_ OSW_GUARDED_BY_PERMISSION;
    std::optional<TipprmiAny> told_ OSW_GUARDED_BY_PERMISSION;
    OSWrap::TimeSpec next_ OSW_GUARDED_BY_PERMISSION;  // not told before
    bool isTimed_ OSW_GUARDED_BY_PERMISSION = false;   // the timer is going to call
    // Somebody else than the thread that tells has brought a value meanwhile.
    bool isOvertaken_ OSW_GUARDED_BY_PERMISSION = false;

    OSWrap::ConditionVar quiet_;            // a leaf
    std::atomic<unsigned long> teller_{0};  // the thread that tells; set under both, 0 for none
};

/** Marks, for a scope, which thread tells. */
class TreflectAttributeWatch::State::Telling {
public:
    explicit Telling(State& state) : state_(state) { set(OSWrap::Thread::getCurrentId()); }
    ~Telling() { set(0); }
    Telling(Telling const&) = delete;
    Telling& operator=(Telling const&) = delete;

private:
    void set(unsigned long teller) {
        OSWrap::Lock<OSWrap::ConditionVar> const lock(state_.quiet_);
        state_.teller_ = teller;
        state_.quiet_.broadcast();
    }

    State& state_;
};

/** Has told, when the thread that tells is unwound, what came meanwhile. */
class TreflectAttributeWatch::State::RestIsTold {
public:
    explicit RestIsTold(State& state) : state_(state) {}
    ~RestIsTold() {
        if (isDone_)
            return;
        OSWrap::DisableCancelStateGuard const noCancel;
        containErrors([this] { tellRest(); }, [](char const*) {});
    }
    RestIsTold(RestIsTold const&) = delete;
    RestIsTold& operator=(RestIsTold const&) = delete;

    void done() { isDone_ = true; }

private:
    void tellRest() {
        handlerthreads::assertPermission();
        state_.isOvertaken_ = true;
        if (state_.isDue())
            state_.tellNext();
    }

    State& state_;
    bool isDone_ = false;
};

// A deadline of the caller is not to leave behind a watch that hears nothing, or a registration.
bool TreflectAttributeWatch::State::registerAt(ChangeKey const& key) {
    TreflectDeadline::Suspension const untilItIsKnown;
    observer_ = std::make_unique<Observer>(std::static_pointer_cast<State>(shared_from_this()));
    TreflectMetaOperation const changes(attribute_.name(), key.declaring,
                                        static_cast<int>(key.methodCode));
    TreflectObjectStub const* const stub = object_.getStub_();
    if (stub && stub->observe(TreflectObservable::kAfterCalls, &changes, observer_.get()))
        return true;
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 4, kSource,
                           "attribute \"%s\" cannot be watched: its object does not answer",
                           attribute_.name().c_str());
    return false;
}

void TreflectAttributeWatch::State::unregister() {
    handlerthreads::assertPermission();
    TreflectDeadline::Suspension const untilItIsDone;
    if (observer_ && object_.isConnected())
        object_.removeObserver(nullptr, observer_.get());
}

void TreflectAttributeWatch::State::logUnread() const {
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 4, kSource, "attribute \"%s\" is watched, and cannot be read",
                           attribute_.name().c_str());
}

// The object may be in this process, and throw.
void TreflectAttributeWatch::State::ask(unsigned long long turn) {
    TreflectObject object;
    object.share_(object_);
    std::optional<TipprmiAny> value;
    containErrors([&] { value = wholeValue(object, attribute_); }, [](char const*) {});
    if (ended_)
        return;
    if (value) {
        take(turn, *value);
        return;
    }
    logUnread();
}

void TreflectAttributeWatch::State::take(unsigned long long turn, TipprmiAny const& value) {
    if (ended_ || turn < known_ || !fits(value))
        return;
    known_ = turn;
    latest_ = value;
}

bool TreflectAttributeWatch::State::fits(TipprmiAny const& value) const {
    if (!check_)
        return true;
    TipprmiStream encoded(value.getDataPtr(), value.getDataSize());
    return check_->find(encoded, -1) == TreflectValueCheck::Found::kValue;
}

// What a reaction changes by itself is told by the thread that is in it. What others bring
// meanwhile is not: that thread might never come back.
void TreflectAttributeWatch::State::tell() {
    if (teller_ != 0) {
        isOvertaken_ = isOvertaken_ || teller_ != OSWrap::Thread::getCurrentId();
        return;
    }
    std::shared_ptr<Due> const self = shared_from_this();
    RestIsTold rest(*this);
    while (isDue())
        tellNext();
    isOvertaken_ = false;
    rest.done();
}

void TreflectAttributeWatch::State::tellNext() {
    told_ = latest_;
    TipprmiAny const value = *told_;
    Telling const telling(*this);
    react(value);
    next_ = OSWrap::Clock::getObsTime() + least_;
}

// Without a thread that could do it later the value is told now.
bool TreflectAttributeWatch::State::isHeldBack() {
    OSWrap::TimeSpec const now = OSWrap::Clock::getObsTime();
    if (!std::exchange(isOvertaken_, false) && now >= next_)
        return false;
    isTimed_ = isTimed_ || WatchTimer::instance().callAt(std::max(now, next_), *this);
    return isTimed_;
}

void TreflectAttributeWatch::State::react(TipprmiAny const& value) {
    CallbackScope const restored;
    containErrors([&] { reaction_(value); },
                  [&](char const* thrown) {
                      REFLECTORB_LOG(3, kSource, "who watches attribute \"%s\" threw%s",
                                     attribute_.name().c_str(), thrown);
                  });
}

void TreflectAttributeWatch::State::awaitReaction() {
    if (teller_ == 0 || teller_ == OSWrap::Thread::getCurrentId())
        return;
    AllLevelsReleased const released;
    OSWrap::Lock<OSWrap::ConditionVar> const lock(quiet_);
    while (teller_ != 0)
        quiet_.wait(OSWrap::TimeSpec::INFINITETIME);
}

// ---- The watch ---------------------------------------------------------------------------------

namespace {

/** How values of a C++ type go with an attribute; null when there is nothing to be looked at. */
std::shared_ptr<TreflectValueCheck const> checkOf(
    TreflectAttribute const& attribute, std::optional<TreflectValueCheck::Type> const& type) {
    if (!type || attribute.isError())
        return nullptr;
    auto check = attribute.meta()->check(*type, TreflectValueCheck::Use::kRead);
    return check->isNeeded() ? check : nullptr;
}

}  // namespace

TreflectAttributeWatch::TreflectAttributeWatch(TreflectAttribute const& attribute,
                                               Reaction reaction,
                                               std::chrono::milliseconds leastInterval)
    : TreflectAttributeWatch(attribute, std::move(reaction), leastInterval, std::nullopt) {}

TreflectAttributeWatch::TreflectAttributeWatch(TreflectAttribute const& attribute,
                                               Reaction reaction,
                                               std::chrono::milliseconds leastInterval,
                                               std::optional<TreflectValueCheck::Type> const& type)
    : state_(makeState(attribute, std::move(reaction), leastInterval, checkOf(attribute, type))) {}

bool TreflectAttributeWatch::areEqual(TipprmiAny const& a, TipprmiAny const& b) {
    auto const size = static_cast<std::size_t>(a.getDataSize());
    return a.getDataSize() == b.getDataSize() &&
           (size == 0 || std::memcmp(a.getDataPtr(), b.getDataPtr(), size) == 0);
}

// What the abandoned broker still knows of is left to it.
TreflectAttributeWatch::~TreflectAttributeWatch() {
    if (!state_)
        return;
    if (BrokerLifecycle::instance().isAbandoned()) {
        static_cast<void>(new (std::nothrow) std::shared_ptr<State>(state_));
        return;
    }
    OSWrap::DisableCancelStateGuard const noCancel(true);
    WithPermission const permission;
    state_->end();
}

/** Ends a state that does not become a watch. */
class TreflectAttributeWatch::EndedUnlessBegun {
public:
    explicit EndedUnlessBegun(State& state) : state_(state) {}
    ~EndedUnlessBegun() {
        if (hasBegun_)
            return;
        OSWrap::DisableCancelStateGuard const noCancel;
        handlerthreads::trustPermission();
        state_.end();
    }
    EndedUnlessBegun(EndedUnlessBegun const&) = delete;
    EndedUnlessBegun& operator=(EndedUnlessBegun const&) = delete;

    bool begin(ChangeKey const& key) OSW_REQUIRES_PERMISSION {
        return hasBegun_ = state_.begin(key);
    }

private:
    State& state_;
    bool hasBegun_ = false;
};

std::shared_ptr<TreflectAttributeWatch::State> TreflectAttributeWatch::makeState(
    TreflectAttribute const& attribute, Reaction reaction, std::chrono::milliseconds leastInterval,
    std::shared_ptr<TreflectValueCheck const> const& check) {
    WithPermission const permission;
    std::optional<ChangeKey> const key =
        attribute.isError() ? std::nullopt : ChangeKey::of(*attribute.meta());
    if (!key)
        return nullptr;
    if (check && check->isMisuse()) {
        check->tell();
        return nullptr;
    }
    auto state = std::make_shared<State>(*attribute.object_, *attribute.meta(), std::move(reaction),
                                         leastInterval, check);
    EndedUnlessBegun watch(*state);
    return watch.begin(*key) ? state : nullptr;
}
