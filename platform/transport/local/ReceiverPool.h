#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "oswrap/Mutex.h"

namespace Transport {

class Receiver;

/**
 * Threads that receivers share: for who has many of them, of which few are busy at a time. Each is
 * served by one thread from its start to its end; a callback that waits holds up the others of its
 * thread. Threads are made when they are needed. A resource.
 */
class ReceiverPool {
public:
    /** `most`: as many threads at most, at least 1. */
    explicit ReceiverPool(std::size_t most);
    /** All whom it serves have been stopped; not on a thread of its own. */
    ~ReceiverPool();
    ReceiverPool(ReceiverPool const&) = delete;
    ReceiverPool& operator=(ReceiverPool const&) = delete;

    /** Has a thread serve it until it has stopped. False, with a log line, when there is none. Any
     * thread. */
    bool serve(std::shared_ptr<Receiver> receiver);

private:
    class Server;
    Server* nextServer();

    std::size_t const most_;
    OSWrap::Mutex mutex_;  // taken before a server's
    std::vector<std::unique_ptr<Server>> servers_ OSW_GUARDED_BY(mutex_);
    std::size_t served_ OSW_GUARDED_BY(mutex_) = 0;  // so far
};

}  // namespace Transport
