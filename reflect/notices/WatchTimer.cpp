#include "reflect/notices/WatchTimer.h"

#include "handler_threads/WithPermission.h"
#include "logging/Log.h"
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

bool WatchTimer::callAt(OSWrap::TimeSpec const& time, std::weak_ptr<Due> due) {
    Calls made;
    OSWrap::untilMemory([&] { made.emplace(time, due); });
    bool started = false;
    {
        Guard const lock(changed_);
        started = runs_ || startWorker();
        if (started)
            calls_.insert(made.extract(made.begin()));
        changed_.signal();
    }
    if (!started)
        REFLECTORB_LOG(3, "TreflectWatch", "ReflectWatch could not be started");
    return started;
}

bool WatchTimer::startWorker() {
    auto worker = std::make_unique<Worker>();
    worker->deleteOnThreadTermination();
    runs_ = worker->startQuietly() == 0;
    if (runs_)
        static_cast<void>(worker.release());
    return runs_;
}

void WatchTimer::serve() {
    while (std::optional<std::weak_ptr<Due>> const next = awaitNext()) {
        WithPermission const permission;
        if (std::shared_ptr<Due> const due = next->lock())
            containErrors([&] { due->due(); }, [](char const*) {});
    }
}

std::optional<std::weak_ptr<WatchTimer::Due>> WatchTimer::awaitNext() {
    Guard const lock(changed_);
    while (uses_ > 0) {
        OSWrap::TimeSpec const now = OSWrap::Clock::getObsTime();
        auto const first = calls_.begin();
        if (first == calls_.end()) {
            changed_.wait(OSWrap::TimeSpec::INFINITETIME);
        } else if (first->first > now) {
            changed_.wait(first->first - now);
        } else {
            std::weak_ptr<Due> next = std::move(first->second);
            calls_.erase(first);
            return next;
        }
    }
    calls_.clear();
    runs_ = false;
    return std::nullopt;
}
