#include "platform/transport/link/UsualInterface.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include <fstream>
#include <limits>
#include <memory>
#include <set>
#include <sstream>

#include "logging/LineLimit.h"

namespace Link {
namespace {

constexpr char const* kSource = "LinkInterface";

std::set<std::string> candidates() {
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0)
        return {};
    std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> const owner(all, freeifaddrs);
    std::set<std::string> names;
    for (ifaddrs const* one = all; one != nullptr; one = one->ifa_next) {
        unsigned const flags = one->ifa_flags;
        if (one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET &&
            (flags & IFF_UP) != 0 && (flags & IFF_MULTICAST) != 0 &&
            (flags & (IFF_LOOPBACK | IFF_POINTOPOINT)) == 0)
            names.insert(one->ifa_name);
    }
    return names;
}

/** The best default route's; empty: there is none. */
std::string defaultRoute() {
    std::ifstream file("/proc/net/route");
    std::string line, best;
    std::getline(file, line);  // headings
    unsigned long least = std::numeric_limits<unsigned long>::max();
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string name, destination, gateway, flags, references, uses, mask;
        unsigned long metric = 0;
        words >> name >> destination >> gateway >> flags >> references >> uses >> metric >> mask;
        if (words && destination == "00000000" && mask == "00000000" && metric < least) {
            least = metric;
            best = name;
        }
    }
    return best;
}

}  // namespace

std::string usualInterface() {
    std::set<std::string> const names = candidates();
    std::string const usual = defaultRoute();
    if (names.count(usual) > 0)
        return usual;
    if (names.size() == 1)
        return *names.begin();
    std::string all;
    for (std::string const& name : names)
        all += " " + name;
    static Logging::LineLimit limit(1);
    REFLECTORB_LOG_LIMITED(limit, 3, kSource, "no telling which interface is to be used:%s",
                           all.empty() ? " there is none" : all.c_str());
    return {};
}

}  // namespace Link
