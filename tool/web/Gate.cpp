#include "web/Gate.h"

#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "Failure.h"

namespace {

/** Takes the same time wherever they differ. */
bool areEqual(std::string const& a, std::string const& b) {
    unsigned int difference = a.size() != b.size();
    for (std::size_t i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a[i]) ^
                      static_cast<unsigned char>(b.empty() ? 0 : b[i % b.size()]);
    return difference == 0;
}

/** 10.0.0.7 or [fe80::1]: no name that somebody could have lead here. */
bool isAddress(std::string const& host) {
    bool const isV6 = host.size() > 2 && host.front() == '[' && host.back() == ']';
    std::string const inside = isV6 ? host.substr(1, host.size() - 2) : host;
    return !inside.empty() && inside.find_first_not_of(isV6 ? "0123456789abcdefABCDEF:."
                                                            : "0123456789.") == std::string::npos;
}

}  // namespace

void Gate::checkWay(HttpRequest const& request) const {
    std::string const host = request.header("host");
    if (!isOurs(host))
        throw Failure(ExitCode::kNoAccess, "this is not the host that is asked for");
    bool const hasOrigin = request.headers.count("origin") != 0;
    if (hasOrigin && request.header("origin") != "http://" + host)
        throw Failure(ExitCode::kNoAccess, "a page of elsewhere asks");
}

void Gate::check(HttpRequest const& request) const {
    checkWay(request);
    if (!hasToken(request))
        throw Failure(ExitCode::kNoAccess,
                      "the token is missing: open the address that reflectorb web has printed");
}

void Gate::checkChange() const {
    if (!rules_.mayChange)
        throw Failure(ExitCode::kNoAccess,
                      "read-only: reflectorb web --allow-changes changes that");
}

bool Gate::isOurs(std::string const& host) const {
    std::string const port = ":" + std::to_string(rules_.port);
    std::size_t const end = host.size() - std::min(host.size(), port.size());
    // Browsers leave out the port of the web itself.
    bool const hasPort = host.compare(end, std::string::npos, port) == 0;
    if (!hasPort && rules_.port != 80)
        return false;
    std::string const name = lowerCase(hasPort ? host.substr(0, end) : host);
    if (name == "localhost" || name == "127.0.0.1" || name == "[::1]")
        return true;
    return rules_.isOpen && (isAddress(name) || (!rules_.name.empty() && name == rules_.name));
}

bool Gate::hasToken(HttpRequest const& request) const {
    if (rules_.token.empty())
        return true;
    return areEqual(request.header("authorization"), "Bearer " + rules_.token) ||
           areEqual(request.parameter("token"), rules_.token);
}

std::string Gate::makeToken() {
    unsigned char bytes[16];
    if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
        throw Failure(ExitCode::kNoAccess, "the system gives no random numbers");
    std::string token;
    for (unsigned char const byte : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        token += kDigits[byte >> 4];
        token += kDigits[byte & 15];
    }
    return token;
}

std::string Gate::readToken(std::string const& path) {
    constexpr std::size_t kShortest = 16;
    constexpr mode_t kOthers = 077;
    struct stat facts {};
    if (stat(path.c_str(), &facts) != 0)
        throw Failure(ExitCode::kNoAccess, "cannot read \"" + path + "\"");
    if ((facts.st_mode & kOthers) != 0)
        throw Failure(ExitCode::kNoAccess,
                      "others may read \"" + path + "\": chmod 600 takes that from them");
    std::ifstream file(path);
    std::string token;
    std::getline(file, token);
    bool const isPlain = std::all_of(token.begin(), token.end(), [](unsigned char letter) {
        return std::isalnum(letter) != 0 || letter == '-' || letter == '_';
    });
    if (token.size() < kShortest || !isPlain)
        throw Failure(ExitCode::kWrongUse, "\"" + path + "\" has no token: 16 letters, digits, - " +
                                               "and _ at least, in its first line");
    return token;
}
