#include "web/Inbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include "Failure.h"

Inbox::Inbox() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor_ < 0)
        throw Failure(ExitCode::kNoAccess, "no descriptors left");
}

void Inbox::leave(SourcePtr const& source, TipprmiAny const& value) {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (source->isOver)
        return;
    bool const isNew = !source->latest;
    source->latest = value;
    if (!isNew)
        return;
    changed_.push_back(source);
    std::uint64_t const one = 1;
    if (changed_.size() == 1)
        static_cast<void>(!write(descriptor_, &one, sizeof one));
}

Inbox::News Inbox::take() {
    std::lock_guard<std::mutex> const lock(mutex_);
    std::uint64_t count = 0;
    static_cast<void>(!read(descriptor_, &count, sizeof count));
    News news;
    for (SourcePtr& source : changed_) {
        TipprmiAny value = std::move(*source->latest);
        source->latest.reset();
        news.emplace_back(std::move(source), std::move(value));
    }
    changed_.clear();
    return news;
}

void Inbox::ifWatched(Source const& source, std::function<void()> const& act) {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (!source.isOver)
        act();
}

void Inbox::end(Source& source) {
    std::lock_guard<std::mutex> const lock(mutex_);
    source.isOver = true;
}
