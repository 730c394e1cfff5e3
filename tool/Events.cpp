#include "Events.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "Failure.h"
#include "Units.h"

namespace {

void complete(Event& event) {
    if (event.rest)
        event.rest(event);
    event.rest = nullptr;
    if (event.time == 0)
        return;
    Json json = {{"time", event.time}};
    json.update(event.json);
    event.json = std::move(json);
    if (!event.line.empty())
        event.line = timeText(event.time) + "  " + event.line;
}

}  // namespace

Events::Events() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor_ < 0)
        throw Failure(ExitCode::kNoAccess, "no descriptors left");
}

Events::~Events() {
    close(descriptor_);
}

void Events::add(Event event) {
    if (event.time == 0)
        event.time = timeNow();
    std::lock_guard<std::mutex> const lock(mutex_);
    // One that is large finds room all the same, if it is alone.
    bool const isTooMuch = bytes_ > 0 && bytes_ + event.bytes > kMostBytes;
    if (events_.size() == kMost || isTooMuch) {
        ++dropped_;
        return;
    }
    keepLocked(std::move(event));
}

void Events::addOwn(Event event) {
    std::lock_guard<std::mutex> const lock(mutex_);
    keepLocked(std::move(event));
}

void Events::keepLocked(Event event) {
    bytes_ += event.bytes;
    events_.push_back(std::move(event));
    std::uint64_t const one = 1;
    static_cast<void>(!write(descriptor_, &one, sizeof one));
}

std::vector<Event> Events::take(std::size_t& dropped) {
    std::vector<Event> events;
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        std::uint64_t count = 0;
        static_cast<void>(!read(descriptor_, &count, sizeof count));
        dropped = std::exchange(dropped_, 0);
        bytes_ = 0;
        events.swap(events_);
    }
    for (Event& event : events)
        complete(event);
    return events;
}
