#include <algorithm>

#include "handler_threads/WithPermission.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/Thread.h"
#include "reflect/TreflectORB.h"
#include "reflect/broker/AllLevelsReleased.h"
#include "reflect/broker/CallbackScope.h"
#include "reflect/broker/ContainErrors.h"
#include "reflect/notices/TreflectOrbObserver.h"
#include "transport/TransportLayer.h"

namespace {

using Guard = OSWrap::Lock<OSWrap::ConditionVar>;

constexpr char kSource[] = "REFLECT_OrbObserver";
constexpr std::size_t kStackSize = 0x80000;

}  // namespace

TreflectOrbObserverIf::~TreflectOrbObserverIf() = default;

/** Marks, for a scope, that an observer is being told. */
class TreflectOrbObserver::Notice {
public:
    Notice(TreflectOrbObserver& owner, TreflectOrbObserverIf const* observer)
        : owner_(owner), observer_(observer) {}
    ~Notice() { owner_.end(observer_); }
    Notice(Notice const&) = delete;
    Notice& operator=(Notice const&) = delete;

private:
    TreflectOrbObserver& owner_;
    TreflectOrbObserverIf const* const observer_;
};

// ---- The thread --------------------------------------------------------------------------------

class TreflectOrbObserver::Worker : public OSWrap::Thread {
public:
    explicit Worker(std::shared_ptr<TreflectOrbObserver> shared)
        : Thread("OrbObsWorker", OSWrap::Priority(3), OSWrap::SchedulingPolicy(0), kStackSize,
                 true),
          shared_(std::move(shared)) {}

protected:
    int run() override {
        OSWrap::DisableCancelStateGuard const noCancel(true);
        shared_->handler();
        return 0;
    }

private:
    std::shared_ptr<TreflectOrbObserver> const shared_;
};

void TreflectOrbObserver::startWorker(std::shared_ptr<TreflectOrbObserver> const& self) {
    auto* const worker = new Worker(self);
    worker->deleteOnThreadTermination();
    if (self->startAndAwait(*worker))
        return;
    delete worker;
    REFLECTORB_LOG(3, kSource, "OrbObsWorker could not be started");
}

bool TreflectOrbObserver::startAndAwait(Worker& worker) {
    Guard const lock(observersMutex_);
    if (worker.startQuietly() != 0)
        return false;
    // Its own number is known to the thread alone, which needs this lock to tell.
    while (worker_ == 0)
        observersMutex_.wait(OSWrap::TimeSpec::INFINITETIME);
    return true;
}

void TreflectOrbObserver::stopWorker() {
    notify(Transport::TerminationId(), TreflectOrbObserverIf::kStop);
    Guard const lock(observersMutex_);
    while (worker_ != 0 && worker_ != OSWrap::Thread::getCurrentId())
        observersMutex_.wait(OSWrap::TimeSpec::INFINITETIME);
}

void TreflectOrbObserver::handler() {
    {
        Guard const lock(observersMutex_);
        worker_ = OSWrap::Thread::getCurrentId();
        observersMutex_.broadcast();
    }
    for (;;) {
        OrbAppear_t next{};
        do
            appeared();
        while (!getAppearance(next));
        if (next.what == TreflectOrbObserverIf::kStop)
            break;
        tellAll(next);
    }
    Guard const lock(observersMutex_);
    worker_ = 0;
    observersMutex_.broadcast();
}

void TreflectOrbObserver::notify(Transport::TerminationId const& broker, Appear_t const& what) {
    // Nobody else could tell of it: it must not be lost for lack of memory.
    std::list<OrbAppear_t> made;
    OSWrap::untilMemory([&] { made.push_back({broker, what}); });
    Guard const lock(appearanceSignal_);
    appearances_.splice(appearances_.end(), made);
    appearanceSignal_.signal();
    auto const arriving = arriving_.find(broker);
    if (what == TreflectOrbObserverIf::kDisappear && arriving != arriving_.end())
        arriving->second = true;
}

void TreflectOrbObserver::beginArrival(Transport::TerminationId const& broker) {
    Guard const lock(appearanceSignal_);
    arriving_[broker] = false;
}

void TreflectOrbObserver::endArrival(Transport::TerminationId const& broker) {
    std::list<OrbAppear_t> made;
    OSWrap::untilMemory([&] { made.push_back({broker, TreflectOrbObserverIf::kAppear}); });
    Guard const lock(appearanceSignal_);
    auto const arriving = arriving_.find(broker);
    bool const gone = arriving != arriving_.end() && arriving->second;
    arriving_.erase(broker);
    if (gone)
        return;
    appearances_.splice(appearances_.end(), made);
    appearanceSignal_.signal();
}

void TreflectOrbObserver::appeared() {
    Guard const lock(appearanceSignal_);
    while (appearances_.empty())
        appearanceSignal_.wait(OSWrap::TimeSpec::INFINITETIME);
}

bool TreflectOrbObserver::getAppearance(OrbAppear_t& next) {
    Guard const lock(appearanceSignal_);
    if (appearances_.empty())
        return false;
    next = appearances_.front();
    appearances_.pop_front();
    return true;
}

void TreflectOrbObserver::tellAll(OrbAppear_t const& appearance) {
    Observers copy;
    OSWrap::untilMemory([&] {
        Guard const lock(observersMutex_);
        copy = observers_;
    });
    for (OrbObserver_t const& record : copy) {
        if (record.mask == appearance.what || record.mask == TreflectOrbObserverIf::kAll)
            tell(record.observer, appearance);
    }
}

// What an observer throws ends here: the others are to hear of the broker too.
void TreflectOrbObserver::tell(TreflectOrbObserverIf* observer, OrbAppear_t const& appearance) {
    WithPermission const permission;
    bool begun = false;
    OSWrap::untilMemory([&] { begun = begin(observer); });
    if (!begun)
        return;
    Notice const notice(*this, observer);
    CallbackScope const restored;
    containErrors([&] { observer->notify(appearance.broker, appearance.what); },
                  [&](char const* thrown) {
                      REFLECTORB_LOG(3, kSource, "Observer 0x%p threw%s",
                                     static_cast<void*>(observer), thrown);
                  });
}

bool TreflectOrbObserver::begin(TreflectOrbObserverIf const* observer) {
    Guard const lock(observersMutex_);
    if (obsFind(observer) == observers_.end())
        return false;
    running_.emplace_back(observer, OSWrap::Thread::getCurrentId());
    return true;
}

void TreflectOrbObserver::end(TreflectOrbObserverIf const* observer) {
    Guard const lock(observersMutex_);
    running_.erase(std::find(running_.begin(), running_.end(),
                             std::make_pair(observer, OSWrap::Thread::getCurrentId())));
    observersMutex_.broadcast();
}

bool TreflectOrbObserver::isToldElsewhere(TreflectOrbObserverIf const* observer) const {
    return std::any_of(running_.begin(), running_.end(), [&](auto const& running) {
        return running.first == observer && running.second != OSWrap::Thread::getCurrentId();
    });
}

// ---- The observers -----------------------------------------------------------------------------

TreflectOrbObserver::Observers::iterator TreflectOrbObserver::obsFind(
    TreflectOrbObserverIf const* observer) {
    return std::find_if(observers_.begin(), observers_.end(),
                        [&](OrbObserver_t const& record) { return record.observer == observer; });
}

bool TreflectOrbObserver::subscribe(TreflectOrbObserverIf* observer, Appear_t const& what,
                                    bool notifyExisting) {
    if (!observer)
        return false;
    {
        Guard const lock(observersMutex_);
        if (auto const listed = obsFind(observer); listed != observers_.end())
            listed->mask = static_cast<Appear_t>(listed->mask | what);
        else
            observers_.push_back({observer, what});
    }
    if (notifyExisting && what == TreflectOrbObserverIf::kAppear)
        notifyExistingOrbs(observer);
    return true;
}

// The departure of one that is there now cannot have been told before.
void TreflectOrbObserver::notifyExistingOrbs(TreflectOrbObserverIf* observer) {
    auto& transport = Transport::TransportLayer::instance();
    for (Transport::TerminationId const& broker : transport.getTerminations()) {
        WithPermission const permission;
        if (transport.exists(broker))
            tell(observer, {broker, TreflectOrbObserverIf::kAppear});
    }
}

void TreflectOrbObserver::unsubscribe(TreflectOrbObserverIf const* observer) {
    AllLevelsReleased const permission;
    Guard const lock(observersMutex_);
    if (auto const listed = obsFind(observer); listed != observers_.end())
        observers_.erase(listed);
    while (isToldElsewhere(observer))
        observersMutex_.wait(OSWrap::TimeSpec::INFINITETIME);
}

std::string TreflectOrbObserver::typeStr(Appear_t const& what) {
    switch (what) {
        case TreflectOrbObserverIf::kAppear:
            return "Appear";
        case TreflectOrbObserverIf::kDisappear:
            return "Disappear";
        case TreflectOrbObserverIf::kAll:
            return "All";
        default:
            return "ERROR";
    }
}

// Logged when the list is unlocked: a log sink may come back here.
void TreflectOrbObserver::display() {
    Observers copy;
    {
        Guard const lock(observersMutex_);
        copy = observers_;
    }
    TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT);
    REFLECTORB_LOG(5, kSource, "ORB (termId=0x%X) has %lu observer registered:",
                   orb ? orb->termId().value() : 0, static_cast<unsigned long>(copy.size()));
    for (OrbObserver_t const& record : copy)
        REFLECTORB_LOG(5, kSource, "   Observer 0x%p registered for %s",
                       static_cast<void*>(record.observer), typeStr(record.mask).c_str());
}
