// How brokers are made, stopped and deleted.
#include <unistd.h>

#include <memory>
#include <new>
#include <utility>

#include "handler_threads/WithPermission.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/Thread.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/broker/AllLevelsReleased.h"
#include "reflect/broker/BrokerLifecycle.h"
#include "reflect/broker/ReflectWorker.h"
#include "reflect/broker/TreflectOrbParts.h"
#include "reflect/process/ProcessPublication.h"

namespace {

using LifecycleLock = OSWrap::Lock<OSWrap::ConditionVar>;

constexpr unsigned long kStartPause = 100'000'000;  // ns, until the others know of a new broker
constexpr OSWrap::TimeSpec kPatienceAtExit{1, 0};
constexpr std::size_t kStackSize = 65536;

}  // namespace

/**
 * Lets one thread go through the phases of a deletion and another one watch it. The watcher loses
 * patience when nothing has happened for a while; from then on the deleting thread must not touch
 * anything. A deletion that nobody watches takes its time.
 */
class BrokerLifecycle::Pace {
public:
    /** A wait is over. False when the watcher has gone. */
    bool goOn() {
        OSWrap::Lock<OSWrap::ConditionVar> const lock(changed_);
        ++steps_;
        return !givenUp_;
    }
    void finish() {
        OSWrap::Lock<OSWrap::ConditionVar> const lock(changed_);
        finished_ = true;
        changed_.broadcast();
    }
    /** The watcher's wait; false when a phase took longer than `patience`. */
    bool watch(OSWrap::TimeSpec const& patience) {
        OSWrap::Lock<OSWrap::ConditionVar> const lock(changed_);
        while (!finished_) {
            unsigned int const before = steps_;
            if (!changed_.wait(patience) && !finished_ && steps_ == before) {
                givenUp_ = true;
                return false;
            }
        }
        return true;
    }

private:
    OSWrap::ConditionVar changed_;  // a leaf lock
    unsigned int steps_ OSW_GUARDED_BY(changed_) = 0;
    bool finished_ OSW_GUARDED_BY(changed_) = false;
    bool givenUp_ OSW_GUARDED_BY(changed_) = false;
};

/** Ends the calling thread's time as the creator. */
class BrokerLifecycle::Creation {
public:
    explicit Creation(BrokerLifecycle& lifecycle) : lifecycle_(lifecycle) {}
    ~Creation() {
        LifecycleLock const lock(lifecycle_.changed_);
        lifecycle_.creator_ = 0;
        lifecycle_.changed_.broadcast();
    }
    Creation(Creation const&) = delete;
    Creation& operator=(Creation const&) = delete;

private:
    BrokerLifecycle& lifecycle_;
};

/** Deletes all brokers on behalf of the thread that ends the process, which therefore need not wait
 * for ever. */
class BrokerLifecycle::DeletionAtExit : public OSWrap::Thread {
public:
    DeletionAtExit(TreflectORB const* served, std::shared_ptr<Pace> pace)
        : Thread("ReflectExit", OSWrap::Priority(3), OSWrap::SchedulingPolicy(0), kStackSize, true),
          served_(served),
          pace_(std::move(pace)) {}

protected:
    int run() override {
        OSWrap::DisableCancelStateGuard const noCancel;
        BrokerLifecycle::instance().closeAllCalls();
        BrokerLifecycle::instance().deleteEach(served_, *pace_);
        pace_->finish();
        return 0;
    }

private:
    TreflectORB const* const served_;
    std::shared_ptr<Pace> const pace_;
};

std::array<std::atomic<TreflectORB*>, 256> TreflectORB::singletonInstances_{};

TreflectORB* TreflectORB::getInstance(NamespaceId ns) {
    auto const index = static_cast<unsigned int>(ns);
    if (index >= singletonInstances_.size()) {
        REFLECTORB_LOG(3, "REFLECT_orb", "ORB can not handle namespace id %d",
                       static_cast<int>(ns));
        return nullptr;
    }
    if (TreflectORB* const present = singletonInstances_[index].load(std::memory_order_acquire))
        return present;
    return BrokerLifecycle::instance().getOrCreate(ns);
}

void TreflectORB::prepareForDeletion() {
    BrokerLifecycle::instance().deleteAll();
}

void preCreateReflectOrb() {
    WithPermission const permission;
    TreflectORB::getInstance(NSID_UNIT);
}

BrokerLifecycle& BrokerLifecycle::instance() {
    static BrokerLifecycle& lifecycle = *new BrokerLifecycle;
    return lifecycle;
}

BrokerLifecycle::BrokerLifecycle() = default;

TreflectORB* BrokerLifecycle::getOrCreate(NamespaceId ns) {
    OSWrap::DisableCancelStateGuard const noCancel;
    auto const index = static_cast<std::size_t>(ns);
    auto& present = TreflectORB::singletonInstances_[index];
    if (!isForkedChild() && mayCreate(ns)) {
        TreflectORB* born = nullptr;
        {
            Creation const creation(*this);
            born = create(ns);
            present.store(born);  // in one order with what brokerPublished reads
        }
        if (born)
            processobject::brokerPublished(*born);
    }
    return present.load(std::memory_order_acquire);
}

/** True when the calling thread is to make the broker, as the creator. */
bool BrokerLifecycle::mayCreate(NamespaceId ns) {
    LifecycleLock const lock(changed_);
    unsigned long const self = OSWrap::Thread::getCurrentId();
    if (creator_ == self)
        return false;  // a log sink asks, inside a creation
    awaitCreation();
    if (TreflectORB::singletonInstances_[static_cast<std::size_t>(ns)] || deleting_ || exiting_)
        return false;
    creator_ = self;
    return true;
}

void BrokerLifecycle::awaitCreation() {
    while (creator_ != 0 && creator_ != OSWrap::Thread::getCurrentId())
        changed_.wait(OSWrap::TimeSpec::INFINITETIME);
}

TreflectORB* BrokerLifecycle::create(NamespaceId ns) {
    process_ = getpid();
    InterfaceRepository::instance()->keepForBrokers_();
    std::unique_ptr<TreflectORB> orb;
    bool const born = OSWrap::withMemory([&] {
        orb.reset(new TreflectORB(ns));
        TreflectOrbObserver::startWorker(orb->parts_->presence);
        if (orb->start() != 1)
            REFLECTORB_LOG(3, "REFLECT_orb", "ORB 0x%08X could not be started",
                           orb->termId().value());
        orb->parts_->work.open(orb->termId());
        orb->parts_->messageQueue.readWith(orb->parts_->work);
    });
    if (!born) {
        if (orb)
            undo(*orb);
        return nullptr;
    }
    OSWrap::Thread::sleep(0, kStartPause);
    return orb.release();
}

/** Ends what a broker has begun that nobody will see. */
void BrokerLifecycle::undo(TreflectORB& orb) {
    silence(orb);
    drain(orb, nullptr);
    endPresence(orb);
}

/** One that is being made is waited for: it must not be born behind the back of a deletion. */
TreflectORB* BrokerLifecycle::brokerOf(std::size_t index) {
    LifecycleLock const lock(changed_);
    awaitCreation();
    return TreflectORB::singletonInstances_[index].load(std::memory_order_acquire);
}

bool BrokerLifecycle::isForkedChild() const {
    pid_t const process = process_;
    return process != 0 && process != getpid();
}

void BrokerLifecycle::deleteAll() {
    if (isForkedChild() || deleting_.exchange(true))
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    closeAllCalls();
    {
        AllLevelsReleased const permission;
        Pace unwatched;
        deleteEach(ReflectWorker::servedBroker(), unwatched);
    }
    OSWrap::Lock<OSWrap::ConditionVar> const lock(deletionOver_);
    deleting_ = false;
    deletionOver_.broadcast();
}

void BrokerLifecycle::deleteAllAtExit() {
    if (exiting_.exchange(true) || isForkedChild())
        return;
    OSWrap::DisableCancelStateGuard const noCancel;
    while (TreflectORB::hasRunPermission())
        TreflectORB::releaseRunPermission();
    if (deleting_.exchange(true) ? awaitOtherDeletion() : deleteAllWatched())
        return;
    abandoned_ = true;
    REFLECTORB_LOG(4, "REFLECT_orb", "ORB deletion at process exit gave up waiting for a thread");
}

/** What the program destroys next may be in use until the deletion is over that another thread has
 * begun. False when it takes too long. */
bool BrokerLifecycle::awaitOtherDeletion() {
    OSWrap::Lock<OSWrap::ConditionVar> const lock(deletionOver_);
    while (deleting_)
        if (!deletionOver_.wait(kPatienceAtExit))
            return !deleting_;
    return true;
}

bool BrokerLifecycle::deleteAllWatched() {
    auto const pace = std::make_shared<Pace>();
    auto* const deletion = new (std::nothrow) DeletionAtExit(ReflectWorker::servedBroker(), pace);
    if (!deletion)
        return false;
    deletion->deleteOnThreadTermination();
    return deletion->start() && pace->watch(kPatienceAtExit);
}

/** Of all brokers before any of them is waited for: a worker of one may wait for a response through
 * another. */
void BrokerLifecycle::closeAllCalls() {
    for (std::size_t index = 0; index < TreflectORB::singletonInstances_.size(); ++index)
        if (TreflectORB* const orb = brokerOf(index))
            orb->closeCalls_();
}

void BrokerLifecycle::deleteEach(TreflectORB const* served, Pace& pace) {
    for (std::size_t index = 0; index < TreflectORB::singletonInstances_.size(); ++index) {
        TreflectORB* const orb = brokerOf(index);
        if (!pace.goOn())
            return;
        if (orb)
            deleteOne(index, *orb, served, pace);
    }
}

// The phases of one broker's deletion. Each may take longer than the process's end will wait.

void BrokerLifecycle::silence(TreflectORB& orb) {
    orb.stop();
}

void BrokerLifecycle::drain(TreflectORB& orb, TreflectORB const* served) {
    orb.parts_->messageQueue.close();
    orb.parts_->messageQueue.waitForWorkers(&orb == served ? 1 : 0);
    orb.parts_->work.close();
}

void BrokerLifecycle::endPresence(TreflectORB& orb) {
    orb.parts_->presence->stopWorker();
}

void BrokerLifecycle::awaitLeaving(TreflectORB& orb) {
    orb.parts_->calls.waitUntilEmpty();
}

void BrokerLifecycle::deleteOne(std::size_t index, TreflectORB& orb, TreflectORB const* served,
                                Pace& pace) {
    silence(orb);
    if (!pace.goOn())
        return;
    drain(orb, served);
    if (!pace.goOn())
        return;
    endPresence(orb);
    if (!pace.goOn())
        return;
    awaitLeaving(orb);
    if (!pace.goOn())
        return;
    WithPermission const permission;
    if (pace.goOn())
        retire(index, orb);
}

/** The last phase, under the run permission. */
void BrokerLifecycle::retire(std::size_t index, TreflectORB& orb) {
    TreflectORB::Parts& parts = *orb.parts_;
    parts.retired = true;
    parts.objects.disown();
    parts.classes.close();
    parts.counters.take();
    TreflectORB::singletonInstances_[index].store(nullptr, std::memory_order_release);
    LifecycleLock const lock(changed_);
    parts.nextRetired = std::exchange(retired_, &orb);
}
