#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "platform/transport/local/Descriptor.h"

namespace Link {

/**
 * The service manager that has started this program, if one has: who says so in NOTIFY_SOCKET, and
 * how long it waits for a sign of life in WATCHDOG_USEC, as sd_notify(3) and sd_watchdog_enabled(3)
 * tell. A resource.
 */
class ServiceManager {
public:
    ServiceManager();
    /** Lines such as "READY=1"; never blocks. False: it takes nothing just now. */
    bool tell(std::string const& lines) const;
    bool listens() const { return socket_.valid(); }
    /** Nanoseconds without WATCHDOG=1 after which it ends this program; 0: never. */
    long long patience() const { return patience_; }

private:
    Transport::Descriptor socket_;
    sockaddr_un address_{};
    socklen_t size_ = 0;
    long long patience_ = 0;
};

}  // namespace Link
