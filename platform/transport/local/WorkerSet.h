#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "oswrap/Mutex.h"
#include "platform/transport/local/Descriptor.h"

namespace Transport {

class Channel;

/**
 * Where a worker of a termination sleeps that takes in by itself what comes next: at the bells of
 * all channels, and at one of its own, with which others of the process wake it. One thread at a
 * time waits there, so what has woken it is its alone: it sees to every channel that it is told of.
 */
class WorkerSet {
public:
    static constexpr int kMostAtOnce = 32;

    WorkerSet() = default;
    WorkerSet(WorkerSet const&) = delete;
    WorkerSet& operator=(WorkerSet const&) = delete;

    /** False, with errno, on failure: then no worker sleeps here. Before all else. */
    bool open();
    bool valid() const { return epoll_.valid(); }

    // ---- Receiving thread
    /** Has the workers hear the channel's bell, before those who are to hear it later. Without
     * memory for that they do not. */
    void watch(int bell, Channel& channel);
    void unwatch(int bell, std::uint32_t token);

    // ---- Any thread
    /** Wakes the thread that waits, or the next one to wait. */
    void wake() const;
    /** The channel of a token; null when it is not connected any more. */
    std::shared_ptr<Channel> find(std::uint32_t token);
    /** How many bells there are, with the own one. */
    std::size_t size();

    // ---- One thread at a time
    /** Waits, without limit or not at all, and fills in the tokens of channels whose bells have
     * rung, 0 for `wake`; answers how many. Look again, without waiting, after each wait: what
     * rings while the thread leaves it may be told to nobody else. */
    enum class Patience { Endless, None };
    int wait(Patience patience, std::uint32_t (&rung)[kMostAtOnce]) const;

private:
    Descriptor epoll_;
    Descriptor bell_;
    OSWrap::Mutex mutex_;  // a leaf
    std::unordered_map<std::uint32_t, std::shared_ptr<Channel>> channels_ OSW_GUARDED_BY(mutex_);
};

}  // namespace Transport
