#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <deque>
#include <string>
#include <vector>

#include "platform/transport/local/Descriptor.h"

namespace hostile {

/** TCP sockets of this machine with bytes that the other end does not take: who closes one last
 * waits, as long as this object keeps the other end. */
class LingeringSockets {
public:
    LingeringSockets() : listening_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        int const small = 4096;
        ::setsockopt(listening_.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address_;
        ::bind(listening_.get(), address(), size);
        ::listen(listening_.get(), 16);
        ::getsockname(listening_.get(), address(), &size);
    }

    Transport::Descriptor make() {
        constexpr std::size_t kMost = 20;
        Transport::Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ::connect(socket.get(), address(), sizeof address_);
        others_.emplace_back(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (others_.size() > kMost)
            others_.pop_front();
        linger const wait{1, 20};
        ::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &wait, sizeof wait);
        std::vector<char> const bytes(64 * 1024);
        while (::send(socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        }
        return socket;
    }

private:
    sockaddr* address() { return reinterpret_cast<sockaddr*>(&address_); }

    Transport::Descriptor listening_;
    sockaddr_in address_{};
    std::deque<Transport::Descriptor> others_;
};

}  // namespace hostile
