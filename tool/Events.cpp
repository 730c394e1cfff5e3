#include "Events.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

#include "Failure.h"
#include "Units.h"

Events::Events() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor_ < 0)
        throw Failure(ExitCode::kNoAccess, "no descriptors left");
}

Events::~Events() {
    close(descriptor_);
}

void Events::add(Event event) {
    using namespace std::chrono;
    auto const now = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    Json json = {{"time", now}};
    json.update(event.json);
    event.json = std::move(json);
    if (!event.line.empty())
        event.line = timeText(now) + "  " + event.line;
    addAsItIs(std::move(event));
}

void Events::addAsItIs(Event event) {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (events_.size() == kMost) {
        ++dropped_;
        return;
    }
    events_.push_back(std::move(event));
    std::uint64_t const one = 1;
    static_cast<void>(!write(descriptor_, &one, sizeof one));
}

std::vector<Event> Events::take(std::size_t& dropped) {
    std::lock_guard<std::mutex> const lock(mutex_);
    std::uint64_t count = 0;
    static_cast<void>(!read(descriptor_, &count, sizeof count));
    dropped = std::exchange(dropped_, 0);
    return std::exchange(events_, {});
}
