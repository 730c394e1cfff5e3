#include "platform/transport/link/ServiceManager.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace Link {
namespace {

/** 0 when the variable is absent or of another process, or says nothing of use. */
long long patienceOf(char const* microseconds, char const* process) {
    if (microseconds == nullptr || (process != nullptr && std::atoll(process) != getpid()))
        return 0;
    long long const value = std::atoll(microseconds);
    constexpr long long kMost = 1'000'000'000'000;  // eleven days
    return value > 0 && value <= kMost ? value * 1000 : 0;
}

}  // namespace

ServiceManager::ServiceManager() {
    char const* const path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || (path[0] != '/' && path[0] != '@') ||
        std::strlen(path) >= sizeof address_.sun_path)
        return;
    address_.sun_family = AF_UNIX;
    std::strcpy(address_.sun_path, path);
    size_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    if (path[0] == '@')
        address_.sun_path[0] = '\0';  // a name that is no file
    socket_ = Transport::Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    patience_ = patienceOf(std::getenv("WATCHDOG_USEC"), std::getenv("WATCHDOG_PID"));
}

bool ServiceManager::tell(std::string const& lines) const {
    return !socket_.valid() ||
           sendto(socket_.get(), lines.data(), lines.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                  reinterpret_cast<sockaddr const*>(&address_), size_) >= 0 ||
           (errno != EAGAIN && errno != ENOBUFS);
}

}  // namespace Link
