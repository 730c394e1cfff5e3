#include "Output.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <system_error>

namespace {

constexpr char kBold[] = "1";
constexpr char kRed[] = "31";

std::size_t terminalWidth() {
    constexpr std::size_t kUsual = 80;
    if (char const* const columns = std::getenv("COLUMNS")) {
        if (int const wanted = std::atoi(columns); wanted > 0)
            return static_cast<std::size_t>(wanted);
    }
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return kUsual;
    return size.ws_col;
}

bool wantsColours() {
    char const* const no = std::getenv("NO_COLOR");
    char const* const terminal = std::getenv("TERM");
    return (!no || !*no) && terminal && std::string(terminal) != "dumb";
}

/** Whether a descriptor can be written to before `unless` can be read; or now, unless `waits`. */
bool isReady(int descriptor, int unless, bool waits) {
    pollfd ready[] = {{descriptor, POLLOUT, 0}, {unless, POLLIN, 0}};
    while (poll(ready, unless < 0 ? 1 : 2, waits ? -1 : 0) < 0) {
        if (errno != EINTR)
            return true;
    }
    return ready[0].revents != 0 && ready[1].revents == 0;
}

/** In pieces that a pipe takes as a whole when it takes anything. Returns 0, or the error for which
 * the rest is dropped. */
int writeAll(int descriptor, int unless, bool waits, std::string& text) {
    constexpr std::size_t kPiece = 4096;
    std::size_t done = 0;
    int error = 0;
    while (error == 0 && done < text.size() && isReady(descriptor, unless, waits)) {
        ssize_t const written =
            ::write(descriptor, text.data() + done, std::min(text.size() - done, kPiece));
        if (written < 0 && errno != EINTR && errno != EAGAIN)
            error = errno;
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    text.erase(0, error != 0 ? text.size() : done);
    return error;
}

std::string dumped(Json const& json, int indent) {
    // Texts of others may be no UTF-8.
    return json.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

Output::Output(Settings const& settings)
    : json_(settings.json),
      terminal_(isatty(STDOUT_FILENO) == 1),
      colours_(terminal_ && wantsColours()),
      width_(terminal_ && !settings.full ? terminalWidth() : 0) {}

std::string Output::coloured(char const* colour, std::string const& text) const {
    return colours_ ? "\x1B[" + std::string(colour) + "m" + text + "\x1B[0m" : text;
}

void Output::table(Table const& table) {
    if (json_ || table.empty())
        return;
    bool isHeading = terminal_;
    for (std::string const& text : table.lines(width_, terminal_)) {
        out_ += (isHeading ? coloured(kBold, text) : text) + "\n";
        isHeading = false;
    }
}

void Output::indented(Table const& table) {
    constexpr std::size_t kIndent = 2;
    for (std::string const& text : table.lines(width_ > kIndent ? width_ - kIndent : width_, false))
        line(std::string(kIndent, ' ') + text);
}

void Output::line(std::string const& text) {
    if (!json_)
        out_ += cut(text, width_) + "\n";
}

void Output::heading(std::string const& text) {
    if (!json_)
        out_ += coloured(kBold, cut(text, width_)) + "\n";
}

void Output::verbatim(std::string const& text) {
    std::istringstream lines(text);
    for (std::string line; !json_ && std::getline(lines, line);)
        out_ += cut(line, 0) + "\n";
}

void Output::note(std::string const& text) {
    if (!json_ && terminal_)
        error_ += cut(text, 0) + "\n";
}

void Output::document(Json const& json) {
    constexpr int kIndent = 2;
    if (json_)
        out_ += dumped(json, terminal_ ? kIndent : -1);
}

void Output::event(Json const& json) {
    if (json_)
        out_ += dumped(json, -1);
}

void Output::complain(std::string const& text) {
    std::string const line = cut("reflectorb: " + text, 0);
    error_ += (colours_ && isatty(STDERR_FILENO) == 1 ? coloured(kRed, line) : line) + "\n";
}

bool Output::isBroken() const {
    // A pipe says so before anything is written.
    pollfd reader{STDOUT_FILENO, 0, 0};
    return isBroken_ || (poll(&reader, 1, 0) > 0 && (reader.revents & POLLERR) != 0);
}

bool Output::hasFailed() {
    if (failure_.empty())
        return false;
    complain("cannot write: " + failure_);
    flush();
    return true;
}

bool Output::write(int unless, bool waits) {
    if (int const error = writeAll(STDOUT_FILENO, unless, waits, out_); error != 0) {
        isBroken_ = true;
        if (error != EPIPE)
            failure_ = std::generic_category().message(error);
    }
    if (out_.empty())
        writeAll(STDERR_FILENO, unless, waits, error_);
    return out_.empty() && error_.empty();
}
