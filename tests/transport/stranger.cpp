// A process of another user that comes to the socket of a termination: `stranger SOCKET UID`. It
// says "connected", and "dropped" when the other side has closed the connection.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

/** By its name in the working folder: a whole path may be too long for an address. */
bool connectTo(int socket, std::string const& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    return ::connect(socket, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    std::filesystem::path const path(argv[1]);
    std::filesystem::current_path(path.parent_path());
    int const socket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (socket < 0 || ::setuid(static_cast<uid_t>(std::atoi(argv[2]))) != 0 ||
        !connectTo(socket, path.filename().string())) {
        std::perror("stranger");
        return 1;
    }
    std::printf("connected\n");
    std::fflush(stdout);
    char byte = 0;
    if (::recv(socket, &byte, 1, 0) > 0)
        return 1;
    std::printf("dropped\n");
    return 0;
}
