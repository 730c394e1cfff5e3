#include "Reaper.h"

#include <handler_threads.h>

#include <system_error>
#include <thread>
#include <utility>

void Reaper::take(unsigned int broker, std::shared_ptr<void const> watch) {
    if (!watch)
        return;
    std::lock_guard<std::mutex> const lock(mutex_);
    over_[broker].push_back(std::move(watch));
    if (!working_.insert(broker).second)
        return;
    try {
        std::thread([this, broker] { work(broker); }).detach();
    } catch (std::system_error const&) {
        working_.erase(broker);  // with the next one
    }
}

void Reaper::work(unsigned int broker) {
    for (;;) {
        std::shared_ptr<void const> watch;
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            auto const over = over_.find(broker);
            if (over->second.empty()) {
                over_.erase(over);
                working_.erase(broker);
                return;
            }
            watch = std::move(over->second.front());
            over->second.pop_front();
        }
        TreflectHandlerState const inside(true);
        watch.reset();
    }
}
