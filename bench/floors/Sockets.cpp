#include "floors/Sockets.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

void die(char const* what) {
    std::perror(what);
    std::exit(1);
}

namespace {

sockaddr_un address(std::string const& folder) {
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    std::snprintf(result.sun_path, sizeof result.sun_path, "%s/floor", folder.c_str());
    return result;
}

}  // namespace

int acceptSocket(std::string const& folder) {
    sockaddr_un const place = address(folder);
    unlink(place.sun_path);
    int const listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listener < 0 ||
        bind(listener, reinterpret_cast<sockaddr const*>(&place), sizeof place) < 0 ||
        listen(listener, 1) < 0)
        die("listening socket");
    std::puts("ready");
    std::fflush(stdout);
    int const peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (peer < 0)
        die("accept");
    close(listener);
    return peer;
}

int connectSocket(std::string const& folder) {
    sockaddr_un const place = address(folder);
    int const peer = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (peer < 0 || connect(peer, reinterpret_cast<sockaddr const*>(&place), sizeof place) < 0)
        die("connect");
    return peer;
}

}  // namespace bench
