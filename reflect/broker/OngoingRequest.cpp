#include "reflect/broker/OngoingRequest.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "handler_threads/PermissionWaiter.h"
#include "ipprmi/BigEndian.h"
#include "logging/Log.h"
#include "oswrap/Clock.h"
#include "oswrap/FreeList.h"
#include "oswrap/Immortal.h"
#include "oswrap/Lock.h"
#include "oswrap/Thread.h"
#include "reflect/TreflectMessage.h"
#include "reflect/TreflectORB.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/CallHeader.h"
#include "reflect/broker/ReceivingScope.h"
#include "transport/IdInfo.h"

namespace {

using handlerthreads::PermissionWaiter;
using RecordLock = OSWrap::Lock<OSWrap::ConditionVar>;

int const waitPeriodSeconds = 30;
OSWrap::TimeSpec const waitPeriod(waitPeriodSeconds, 0);
/** The wait is given up after the period that completes so many minutes. */
constexpr int kMostMinutes = 1;

}  // namespace

/** Records of ended threads, for new ones. */
struct OngoingRequest::FreeRecords {
    /** Never destroyed: threads may end later than everything else. */
    static FreeRecords& instance() {
        static OSWrap::Immortal<FreeRecords> records;
        return *records;
    }

    OSWrap::Mutex mutex;  // a leaf lock
    OSWrap::FreeList<OngoingRequest, &OngoingRequest::nextFree_> list OSW_GUARDED_BY(mutex);
};

/** Takes the entry of a cancelled thread back, or out of the permission's queue. */
class OngoingRequest::Withdrawal {
public:
    Withdrawal(OngoingRequest& record, PermissionWaiter& waiter)
        : record_(record), waiter_(&waiter) {}
    ~Withdrawal() {
        if (waiter_ && !record_.takeBack())
            TreflectORB::handlerThreads().leaveQueue(*waiter_);
    }
    Withdrawal(Withdrawal const&) = delete;
    Withdrawal& operator=(Withdrawal const&) = delete;
    /** The thread goes on. */
    void cancel() { waiter_ = nullptr; }

private:
    OngoingRequest& record_;
    PermissionWaiter* waiter_;
};

/** Has others wake the thread through what it reads, for a scope. */
class OngoingRequest::SleepAtRing {
public:
    SleepAtRing(OngoingRequest& record, Transport::AnswerWait const& answers) : record_(record) {
        RecordLock const lock(record_.condition_);
        record_.asleepAt_ = record_.delivered() ? nullptr : &answers;
        begun_ = record_.asleepAt_ != nullptr;
    }
    ~SleepAtRing() {
        RecordLock const lock(record_.condition_);
        record_.asleepAt_ = nullptr;
    }
    SleepAtRing(SleepAtRing const&) = delete;
    SleepAtRing& operator=(SleepAtRing const&) = delete;
    /** False when something has been delivered already. */
    bool begun() const { return begun_; }

private:
    OngoingRequest& record_;
    bool begun_ = false;
};

pthread_key_t OngoingRequest::tsv_key_;
bool OngoingRequest::keyed_ = false;

TreflectMessage* OngoingRequest::disconnected() {
    return reinterpret_cast<TreflectMessage*>(~std::uintptr_t{0});
}

void OngoingRequest::DeleteResponse::operator()(TreflectMessage* response) const {
    if (response != disconnected())
        delete response;
}

OngoingRequest::~OngoingRequest() {
    Response const last(response_.load(std::memory_order_relaxed));
}

void OngoingRequest::initonce() {
    keyed_ = pthread_key_create(&tsv_key_, &OngoingRequest::destroyThreadInstance) == 0;
}

void OngoingRequest::destroyThreadInstance(void* instance) {
    auto* const record = static_cast<OngoingRequest*>(instance);
    record->free();
    FreeRecords& free = FreeRecords::instance();
    OSWrap::Lock<> const lock(free.mutex);
    free.list.push(record);
}

OngoingRequest* OngoingRequest::takeFree() {
    FreeRecords& free = FreeRecords::instance();
    OSWrap::Lock<> const lock(free.mutex);
    return free.list.pop();
}

OngoingRequest& OngoingRequest::getThreadInstance() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, &OngoingRequest::initonce);
    return keyed_ ? keyedInstance() : unkeyedInstance();
}

OngoingRequest& OngoingRequest::keyedInstance() {
    auto* record = static_cast<OngoingRequest*>(pthread_getspecific(tsv_key_));
    if (!record) {
        record = takeFree();
        if (!record)
            record = new OngoingRequest;
        pthread_setspecific(tsv_key_, record);
        record->owner_.store(OSWrap::Thread::getCurrentTid(), std::memory_order_relaxed);
    }
    return *record;
}

/** The process has used up its keys, so nobody learns when a thread ends: its record stays behind.
 */
OngoingRequest& OngoingRequest::unkeyedInstance() {
    thread_local OngoingRequest* const record = new OngoingRequest;
    record->owner_.store(OSWrap::Thread::getCurrentTid(), std::memory_order_relaxed);
    return *record;
}

void OngoingRequest::setTransactionAndTerminationId(unsigned int id,
                                                    Transport::TerminationId const& target,
                                                    TreflectMessage const* request) {
    Response stale;
    RecordLock const lock(condition_);
    active_ = true;
    transactionId_ = id;
    target_ = target;
    request_ = request;
    asleepSince_.store(0, std::memory_order_relaxed);
    stale.reset(exchange(nullptr));
}

OngoingRequest::Glimpse OngoingRequest::glimpse() {
    Glimpse seen;
    seen.thread = owner_.load(std::memory_order_relaxed);
    seen.asleepSince = asleepSince_.load(std::memory_order_relaxed);
    RecordLock const lock(condition_);
    seen.target = target_;
    if (!request_)
        return seen;
    seen.type = request_->type();
    TreflectMessage const& request = *request_;
    unsigned char const* const payload = request.buf();
    if (seen.type == TreflectMessage::tPayload && request.size() >= callheader::kEnd &&
        ipprmi::loadBigEndian(payload) >= callheader::kSize) {
        seen.object = ipprmi::loadBigEndian(payload + callheader::kObject);
        seen.classCode = ipprmi::loadBigEndian(payload + callheader::kClassCode);
        seen.methodCode =
            static_cast<int>(ipprmi::loadBigEndian(payload + callheader::kMethodCode));
    }
    return seen;
}

TreflectMessage* OngoingRequest::exchange(TreflectMessage* response) {
    return response_.exchange(response, std::memory_order_release);
}

TreflectMessage* OngoingRequest::wait(Wait& wait) {
    if (!active_)
        return nullptr;
    bool const mayRead = wait.answers && wait.answers->mayRead();
    if (!mayRead && waiting_.poll([this] { return delivered(); }))
        return response_.load(std::memory_order_acquire);
    return sleepInPeriods(wait);
}

TreflectMessage* OngoingRequest::wait(bool waitForever, bool output, bool& targetExists,
                                      TreflectMessage& request, TreflectORB const* orb) {
    Wait periods{request, *orb, output};
    TreflectMessage* const response =
        waitForever && active_ ? sleepUntilDelivered() : wait(periods);
    targetExists = periods.targetExists;
    return response;
}

TreflectMessage* OngoingRequest::sleepUntilDelivered() {
    RecordLock const lock(condition_);
    OSWrap::AdaptiveWait::Sleep const sleep(waiting_);
    while (!delivered())
        condition_.wait(OSWrap::TimeSpec::INFINITETIME);
    return response_.load(std::memory_order_relaxed);
}

/** What has come at the last moment is taken all the same. */
TreflectMessage* OngoingRequest::timeOut(Wait& wait) const {
    TreflectMessage* const response = response_.load(std::memory_order_acquire);
    wait.timedOut = response == nullptr;
    return response;
}

TreflectMessage* OngoingRequest::sleepInPeriods(Wait& wait) {
    for (int periods = 1;; ++periods) {
        long long const left = wait.deadline - OSWrap::Clock::nowNanoseconds();
        bool const isLast = left < waitPeriod.totalNanoseconds();
        OSWrap::TimeSpec const period = isLast ? OSWrap::TimeSpec(0, left) : waitPeriod;
        if (TreflectMessage* const response = waitOnePeriod(period, wait))
            return response;
        if (isLast)
            return timeOut(wait);
        Transport::TerminationId const target = toTerminationId();
        wait.targetExists = exists(target);
        if (!wait.targetExists)
            return response_.load(std::memory_order_acquire);
        int const seconds = periods * waitPeriodSeconds;
        REFLECTORB_LOG(4, "REFLECT_orb",
                       "ORB 0x%08X waits now %3d seconds for response from 0x%08X",
                       wait.orb.termId().value(), seconds, target.value());
        wait.orb.testInfoAboutMessage(target, wait.request, wait.output);
        int const minutes = seconds / 60;
        if (minutes < kMostMinutes)
            continue;
        if (!Transport::IdInfo::instance().failsOnSilence())
            wait.orb.waitingTooLongFor(target, wait.request, minutes);
        REFLECTORB_LOG(3, "REFLECT_orb",
                       "ORB 0x%08X has waited %d minutes for 0x%08X, now failing the call instead "
                       "of an abort",
                       wait.orb.termId().value(), minutes, target.value());
        return timeOut(wait);
    }
}

/** Null when the whole period has passed without a delivery. */
TreflectMessage* OngoingRequest::waitOnePeriod(OSWrap::TimeSpec period, Wait& wait) {
    if (wait.answers && wait.answers->mayRead()) {
        long long const end = OSWrap::Clock::nowNanoseconds() + period.totalNanoseconds();
        if (TreflectMessage* const response = readUntil(end, wait))
            return response;
        period = OSWrap::TimeSpec(0, std::max(end - OSWrap::Clock::nowNanoseconds(), 0LL));
    }
    return wait.thenPermission ? sleepOnePeriodForPermission(period) : sleepOnePeriod(period);
}

/** Null when the time is up, or when somebody else reads by now. */
TreflectMessage* OngoingRequest::readUntil(long long end, Wait& wait) {
    Transport::AnswerWait::Reading reading(*wait.answers);
    if (!reading.goesOn() && waiting_.poll([this] { return delivered(); }))
        return response_.load(std::memory_order_acquire);
    while (reading.goesOn() && !delivered()) {
        if (waiting_.poll([&] { return reading.hasData() || delivered(); })) {
            ReceivingScope const receiving;
            reading.takeIn(*this);
        } else {
            sleepAtRing(reading, *wait.answers, end);
        }
        if (!delivered() && OSWrap::Clock::nowNanoseconds() >= end)
            return nullptr;
    }
    if (delivered())
        takeLeave(reading, wait.thenPermission);
    return response_.load(std::memory_order_acquire);
}

void OngoingRequest::sleepAtRing(Transport::AnswerWait::Reading& reading,
                                 Transport::AnswerWait const& answers, long long end) {
    long long const now = OSWrap::Clock::nowNanoseconds();
    fallAsleep(now);
    SleepAtRing const reachable(*this, answers);
    if (!reachable.begun())
        return;
    OSWrap::AdaptiveWait::Sleep const sleep(waiting_);
    reading.sleep(end - now);
}

/** The thread asks for the permission before others can read what came behind its own answer, so
 * nobody overtakes it. */
void OngoingRequest::takeLeave(Transport::AnswerWait::Reading& reading, bool thenPermission) {
    if (!thenPermission) {
        reading.end();
        return;
    }
    PermissionWaiter waiter;
    bool const mine = TreflectORB::handlerThreads().enterQueue(waiter);
    reading.end();
    if (!mine)
        TreflectORB::handlerThreads().getPermission(waiter);
}

/** Of several periods the first one counts. */
void OngoingRequest::fallAsleep(long long now) {
    if (asleepSince_.load(std::memory_order_relaxed) == 0)
        asleepSince_.store(now, std::memory_order_relaxed);
}

/** Null when the whole period has passed without a delivery. */
TreflectMessage* OngoingRequest::sleepOnePeriod(OSWrap::TimeSpec const& period) {
    OSWrap::TimeSpec const begin = OSWrap::Clock::getObsTime();
    OSWrap::TimeSpec const end = begin + period;
    fallAsleep(begin.totalNanoseconds());
    RecordLock const lock(condition_);
    OSWrap::AdaptiveWait::Sleep const sleep(waiting_);
    while (!delivered()) {
        OSWrap::TimeSpec const rest = end - OSWrap::Clock::getObsTime();
        if (rest <= OSWrap::TimeSpec())
            return nullptr;
        condition_.wait(rest);
    }
    return response_.load(std::memory_order_relaxed);
}

/**
 * The same, woken with the run permission. While the thread sleeps it looks once per second whether
 * it has been queued, since the one at the front of the queue reports how long it waits there.
 */
TreflectMessage* OngoingRequest::sleepOnePeriodForPermission(OSWrap::TimeSpec const& period) {
    constexpr long long kLook = 1'000'000'000;
    PermissionWaiter waiter;
    if (!leaveToDeliverer(waiter))
        return response_.load(std::memory_order_acquire);
    OSWrap::AdaptiveWait::Sleep const sleep(waiting_);
    long long const begin = OSWrap::Clock::nowNanoseconds();
    long long const end = begin + period.totalNanoseconds();
    fallAsleep(begin);
    bool queued = false;
    {
        Withdrawal withdrawal(*this, waiter);
        while (!queued) {
            long long const rest = end - OSWrap::Clock::nowNanoseconds();
            if (rest <= 0)
                break;
            waiter.sleep(PermissionWaiter::Granted, OSWrap::TimeSpec(0, std::min(rest, kLook)));
            queued = delivered();
        }
        withdrawal.cancel();
    }
    if (!queued && takeBack())
        return nullptr;
    TreflectORB::handlerThreads().getPermission(waiter);
    return response_.load(std::memory_order_acquire);
}

/** False when something has been delivered already. */
bool OngoingRequest::leaveToDeliverer(PermissionWaiter& waiter) {
    RecordLock const lock(condition_);
    if (delivered())
        return false;
    waiter_ = &waiter;
    return true;
}

/** False when a deliverer has taken the entry. */
bool OngoingRequest::takeBack() {
    RecordLock const lock(condition_);
    return std::exchange(waiter_, nullptr) != nullptr;
}

/** Takes over `response`, and leaves in it what is to be deleted after unlocking. */
void OngoingRequest::store(Response& response) {
    deliveries_.store(deliveries_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    response.reset(exchange(response.release()));
}

/** Delivers `response` if the record still waits for what `key` says; deletes it if not. */
template <class Key>
void OngoingRequest::deliverTo(Key const& key, TreflectMessage* response) {
    Response owned(response);
    PermissionWaiter* waiter = nullptr;
    {
        RecordLock const lock(condition_);
        if (!waitsFor(key))
            return;
        store(owned);
        if (response == nullptr)
            return;
        waiter = std::exchange(waiter_, nullptr);
        if (asleepAt_)
            asleepAt_->wake();
    }
    wakeOwner(waiter);
}

void OngoingRequest::reset(TreflectMessage* response, unsigned int transactionId) {
    deliverTo(transactionId, response);
}

void OngoingRequest::reset(TreflectMessage* response, Transport::TerminationId const& target) {
    deliverTo(target, response);
}

void OngoingRequest::wakeOwner(PermissionWaiter* waiter) {
    if (waiter)
        TreflectORB::handlerThreads().queue(*waiter);
    else
        condition_.signal();
}

void OngoingRequest::free() {
    Response stale;
    RecordLock const lock(condition_);
    stale.reset(exchange(nullptr));
    active_ = false;
}

Transport::TerminationId OngoingRequest::toTerminationId() {
    RecordLock const lock(condition_);
    return target_;
}
