#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "floors/Link.h"
#include "floors/Sockets.h"

namespace bench {

namespace {

/** Messages as packets of a unix socket; the kernel keeps their order and their bounds. */
class SocketLink : public Link {
public:
    explicit SocketLink(int socket) : socket_(socket), packet_(kLargestPacket) {}
    ~SocketLink() override { ::close(socket_); }

    void send(FloorMessage const& head, unsigned char const* body) override {
        iovec parts[2] = {{const_cast<FloorMessage*>(&head), sizeof head},
                          {const_cast<unsigned char*>(body), head.bodySize}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = head.bodySize > 0 ? 2 : 1;
        sendmsg(socket_, &message, MSG_NOSIGNAL);
    }

    bool receive(FloorMessage& head, std::vector<unsigned char>& body) override {
        ssize_t const size = recv(socket_, packet_.data(), packet_.size(), 0);
        if (size < static_cast<ssize_t>(sizeof head))
            return false;
        std::memcpy(&head, packet_.data(), sizeof head);
        body.assign(packet_.begin() + sizeof head, packet_.begin() + size);
        return true;
    }

    void close() override { shutdown(socket_, SHUT_RDWR); }

private:
    static constexpr std::size_t kLargestPacket = 128 * 1024;

    int const socket_;
    std::vector<unsigned char> packet_;  // receiving thread only
};

}  // namespace

std::unique_ptr<Link> acceptSocketLink(std::string const& folder) {
    return std::make_unique<SocketLink>(acceptSocket(folder));
}

std::unique_ptr<Link> connectSocketLink(std::string const& folder) {
    return std::make_unique<SocketLink>(connectSocket(folder));
}

}  // namespace bench
