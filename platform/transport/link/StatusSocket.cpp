#include "platform/transport/link/StatusSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "logging/Log.h"
#include "oswrap/Clock.h"

namespace Link {
namespace {

using Transport::Descriptor;

constexpr char const* kSource = "LinkStatus";
constexpr char const* kName = "link";

Descriptor openFolder(std::string const& path) {
    return Descriptor(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

/** By the folder's descriptor: its path may be longer than an address. */
sockaddr_un addressIn(Descriptor const& folder) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder.get(),
                  kName);
    return address;
}

Descriptor streamSocket(int flags) {
    return Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

/** No call waits longer. */
void setPatience(Descriptor const& socket, long long until) {
    long long const left = std::max(until - OSWrap::Clock::nowNanoseconds(), 1'000'000LL);
    timeval const patience{static_cast<time_t>(left / 1'000'000'000),
                           static_cast<suseconds_t>(left % 1'000'000'000 / 1000)};
    for (int const option : {SO_RCVTIMEO, SO_SNDTIMEO})
        setsockopt(socket.get(), SOL_SOCKET, option, &patience, sizeof patience);
}

/** All that comes up to the end; false when it does not come in time. */
bool readAll(Descriptor const& from, std::string& text, long long until) {
    char part[4096];
    for (;;) {
        setPatience(from, until);
        ssize_t const size = read(from.get(), part, sizeof part);
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0)
            return size == 0;
        text.append(part, static_cast<std::size_t>(size));
    }
}

}  // namespace

StatusSocket::StatusSocket(std::string const& folder) : folder_(openFolder(folder)) {
    Descriptor made = streamSocket(SOCK_NONBLOCK);
    sockaddr_un const address = addressIn(folder_);
    unlinkat(folder_.get(), kName, 0);  // a former link's: there is one at a time
    if (made.valid() &&
        bind(made.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 &&
        listen(made.get(), SOMAXCONN) == 0)
        listening_ = std::move(made);
    else
        REFLECTORB_LOG(3, kSource, "nobody can ask how this link is: %s", std::strerror(errno));
}

StatusSocket::~StatusSocket() {
    if (listening_.valid())
        unlinkat(folder_.get(), kName, 0);
}

bool StatusSocket::answer(std::string const& document) const {
    Descriptor const asking(
        accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!asking.valid())
        return errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM;
    (void)!send(asking.get(), document.data(), document.size(), MSG_NOSIGNAL);
    return true;
}

StatusAnswer askStatus(std::string const& folder, long long until) {
    Descriptor const place = openFolder(folder);
    Descriptor const link = streamSocket(0);
    setPatience(link, until);
    sockaddr_un const address = addressIn(place);
    if (connect(link.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0)
        return {errno == EAGAIN   ? StatusAnswer::Kind::Silent
                : errno == EACCES ? StatusAnswer::Kind::Forbidden
                                  : StatusAnswer::Kind::NoLink};
    StatusAnswer answer{StatusAnswer::Kind::Told};
    if (!readAll(link, answer.document, until))
        answer.kind = StatusAnswer::Kind::Silent;
    return answer;
}

}  // namespace Link
