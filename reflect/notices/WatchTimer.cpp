#include "reflect/notices/WatchTimer.h"

#include <utility>

#include "handler_threads/WithPermission.h"
#include "logging/LineLimit.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "oswrap/Immortal.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/Thread.h"
#include "reflect/broker/ContainErrors.h"

namespace {

using Guard = OSWrap::Lock<OSWrap::ConditionVar>;

constexpr std::size_t kStackSize = 0x80000;

}  // namespace

class WatchTimer::Worker : public OSWrap::Thread {
public:
    Worker()
        : Thread("ReflectWatch", OSWrap::Priority(3), OSWrap::SchedulingPolicy(0), kStackSize,
                 true) {}

    /** False when there is no thread or no memory for it. */
    static bool startOne() {
        bool started = false;
        static_cast<void>(OSWrap::withMemory([&] {
            auto worker = std::make_unique<Worker>();
            worker->deleteOnThreadTermination();
            started = worker->startQuietly() == 0;
            if (started)
                static_cast<void>(worker.release());
        }));
        return started;
    }

protected:
    int run() override {
        OSWrap::DisableCancelStateGuard const noCancel(true);
        WatchTimer::instance().serve();
        return 0;
    }
};

WatchTimer& WatchTimer::instance() {
    static OSWrap::Immortal<WatchTimer> timer;
    return *timer;
}

WatchTimer::Use::Use() {
    WatchTimer& timer = instance();
    Guard const lock(timer.changed_);
    ++timer.uses_;
}

WatchTimer::Use::~Use() {
    WatchTimer& timer = instance();
    Guard const lock(timer.changed_);
    if (--timer.uses_ == 0)
        timer.changed_.signal();
}

WatchTimer::Due::Due() {
    Calls made;
    made.emplace(OSWrap::TimeSpec(), this);
    place_ = made.extract(made.begin());
}

WatchTimer::Due::~Due() {
    instance().forget(*this);
}

bool WatchTimer::callAt(OSWrap::TimeSpec const& time, Due& due) {
    return insert(time, due, nullptr);
}

bool WatchTimer::callNow(std::shared_ptr<Due> due) {
    Due& called = *due;
    return insert(OSWrap::Clock::getObsTime(), called, std::move(due));
}

void WatchTimer::callAsServed(Due& due) {
    Guard const lock(changed_);
    due.place_.key() = OSWrap::Clock::getObsTime();
    due.at_ = calls_.insert(std::move(due.place_));
    changed_.signal();
}

void WatchTimer::forget(Due& due) {
    std::shared_ptr<Due> released;
    Guard const lock(changed_);
    if (due.place_.empty())
        due.place_ = calls_.extract(due.at_);
    released.swap(due.kept_);
}

// Who asks has the permission: nobody else relies on a thread that cannot be started.
bool WatchTimer::insert(OSWrap::TimeSpec const& time, Due& due, std::shared_ptr<Due> kept) {
    bool isServed = true;
    {
        Guard const lock(changed_);
        due.place_.key() = time;
        due.at_ = calls_.insert(std::move(due.place_));
        due.kept_ = std::move(kept);
        isServed = std::exchange(runs_, true);
        changed_.signal();
    }
    if (isServed || Worker::startOne())
        return true;
    forget(due);
    {
        Guard const lock(changed_);
        runs_ = false;
    }
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, "TreflectWatch", "ReflectWatch could not be started");
    return false;
}

void WatchTimer::serve() {
    while (std::shared_ptr<Due> next = awaitNext()) {
        if (!OSWrap::withMemory([&] { call(std::move(next)); }))
            OSWrap::awaitMemory();
    }
}

void WatchTimer::call(std::shared_ptr<Due> due) {
    WithPermission const permission;
    std::shared_ptr<Due> const called = std::move(due);
    called->due();
}

std::shared_ptr<WatchTimer::Due> WatchTimer::awaitNext() {
    Guard const lock(changed_);
    while (uses_ > 0 || !calls_.empty()) {
        OSWrap::TimeSpec const now = OSWrap::Clock::getObsTime();
        auto const first = calls_.begin();
        if (first == calls_.end())
            changed_.wait(OSWrap::TimeSpec::INFINITETIME);
        else if (first->first > now)
            changed_.wait(first->first - now);
        else if (std::shared_ptr<Due> next = take(first))
            return next;
    }
    runs_ = false;
    return nullptr;
}

// One that is being destroyed is none any more.
std::shared_ptr<WatchTimer::Due> WatchTimer::take(Calls::iterator at) {
    Due& due = *at->second;
    due.place_ = calls_.extract(at);
    return due.kept_ ? std::move(due.kept_) : due.weak_from_this().lock();
}
