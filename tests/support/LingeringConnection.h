#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <utility>

#include "platform/transport/local/Descriptor.h"

namespace testsupport {

/** A connection of this machine with itself whose closing waits, for an hour, for what has been
 * sent to be read, which nobody does. */
class LingeringConnection {
public:
    LingeringConnection() {
        using Transport::Descriptor;
        Descriptor const listening(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const where = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        waiting_ = Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        int const small = 1;
        ::setsockopt(waiting_.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        ::setsockopt(listening.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        if (::bind(listening.get(), where, length) != 0 || ::listen(listening.get(), 1) != 0 ||
            ::getsockname(listening.get(), where, &length) != 0 ||
            ::connect(waiting_.get(), where, length) != 0)
            return;
        deaf_ = Descriptor(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        linger const hour{1, 3600};
        ::setsockopt(waiting_.get(), SOL_SOCKET, SO_LINGER, &hour, sizeof hour);
        char const bytes[4096] = {};
        while (::send(waiting_.get(), bytes, sizeof bytes, MSG_DONTWAIT) > 0)
            sent_ = true;
    }

    bool works() const { return deaf_.valid() && sent_; }
    int get() const { return waiting_.get(); }
    /** Closes at once after all. */
    void hurry() const {
        linger const off{};
        ::setsockopt(waiting_.get(), SOL_SOCKET, SO_LINGER, &off, sizeof off);
    }
    /** Whoever else has it is the last; who had it may have closed it by now, so a thread that
     * may be held up closes it here. */
    void letGo() {
        closing_ = std::async(std::launch::async, [fd = waiting_.release()] { ::close(fd); });
    }
    /** Whether everybody who had it has closed it. */
    bool isClosed() const {
        char byte = 0;
        ssize_t length = 1;
        while (length > 0)
            length = ::recv(deaf_.get(), &byte, 1, MSG_DONTWAIT);
        return length == 0 || errno == ECONNRESET;
    }
    int release() { return waiting_.release(); }
    /** The other end, which is to outlive whoever closes this one. */
    Transport::Descriptor takeOther() { return std::move(deaf_); }

private:
    std::future<void> closing_;   // outlives the other end, whose going ends the wait
    Transport::Descriptor deaf_;  // its end lets those go on who close the other one
    Transport::Descriptor waiting_;
    bool sent_ = false;
};

}  // namespace testsupport
