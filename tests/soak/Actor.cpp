#include "Actor.h"

namespace soak {

void KnownObjects::offer(TreflectObject const& object, std::string const& name) {
    Known& known = all_[next_++ % all_.size()];
    known.handle.share_(object);
    known.name = name;
}

std::string KnownObjects::take(unsigned int index, Client& handle) const {
    Known const& known = all_[index % all_.size()];
    if (!known.name.empty())
        handle.share_(known.handle);
    return known.name;
}

void Turn::go() {
    std::lock_guard<std::mutex> const lock(mutex_);
    acting_ = true;
    changed_.notify_all();
}

void Turn::rest() {
    std::unique_lock<std::mutex> lock(mutex_);
    acting_ = false;
    changed_.wait(lock, [this] { return busy_ == 0; });
}

void Turn::end() {
    std::lock_guard<std::mutex> const lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

bool Turn::begin() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return acting_ || ended_; });
    busy_ += !ended_;
    return !ended_;
}

void Turn::finish() {
    std::lock_guard<std::mutex> const lock(mutex_);
    --busy_;
    changed_.notify_all();
}

}  // namespace soak
