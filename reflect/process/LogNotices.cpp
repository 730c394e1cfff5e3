#include "reflect/process/LogNotices.h"

#include <memory>

#include "handler_threads/WithPermission.h"
#include "logging/RecentRecords.h"
#include "oswrap/Clock.h"
#include "oswrap/Thread.h"
#include "reflect/TreflectProcessObject.h"
#include "reflect/TreflectServerObject.h"
#include "reflect/objects/AttributeChange.h"

namespace {

using Logging::RecentRecords;

OSWrap::TimeSpec const kBetweenNotices(0, 100'000'000);

}  // namespace

LogNotices& LogNotices::instance() {
    static auto& shared = *new std::shared_ptr<LogNotices>(std::make_shared<LogNotices>());
    return *shared;
}

void LogNotices::begin(TreflectServerObject& object) {
    object_ = &object;
    if (use_)
        return;
    told_ = RecentRecords::last();
    use_.emplace();
    if (!WatchTimer::instance().callAt(OSWrap::Clock::getObsTime(), *this))
        use_.reset();
}

// Has the timer look again, unless it is going to.
void LogNotices::look() {
    if (RecentRecords::wakeAtNext(nullptr))
        WatchTimer::instance().callAt(OSWrap::Clock::getObsTime(), *this);
}

void LogNotices::end() {
    object_ = nullptr;
    look();
}

void LogNotices::due() {
    handlerthreads::trustPermission();
    if (!isWatched())
        use_.reset();
    else if (isNews())
        tell();
    else
        awaitNext();
}

// Without memory this one is lost, and not those after it.
void LogNotices::tell() {
    told_ = RecentRecords::last();
    WatchTimer::instance().callAt(OSWrap::Clock::getObsTime() + kBetweenNotices, *this);
    object_->changed("LastRecord");
}

void LogNotices::awaitNext() {
    RecentRecords::wakeAtNext(&recordCame);
    if (isNews())
        look();
}

void LogNotices::recordCame() {
    WatchTimer::instance().callAsServed(instance());
}

bool LogNotices::isWatched() const {
    return object_ && object_->postObserverAvailable(
                          processobject::kClass, processobject::kGetLastRecord | ChangeKey::kMark);
}

bool LogNotices::isNews() const {
    return RecentRecords::areAfter(told_, OSWrap::Thread::getCurrentTid());
}
