#include "platform/transport/link/LinkOptions.h"

#include <crypt.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "logging/Log.h"
#include "platform/transport/link/OptionFile.h"
#include "platform/transport/link/Participants.h"
#include "transport/IdInfo.h"

namespace Link {
namespace {

constexpr char const* kSource = "LinkOptions";
constexpr char const* kUsualFile = "/etc/reflectorb/link.conf";

/** What is told to the transport, unless it is left to the environment. */
struct Place {
    int slot = 0;
    std::string directory;
};

int complain(std::string const& what) {
    std::fprintf(stderr, "reflectorb-link: %s\n", what.c_str());
    return kUsage;
}

/** Made of this machine's id, which machine-id(5) forbids to show on a network; empty: there is
 * none.
 */
std::string usualName() {
    std::ifstream file("/etc/machine-id");
    std::string id;
    file >> id;
    crypt_data data{};
    constexpr char const* kHow = "$5$rounds=1000$reflectorb-link$";  // SHA-256, with our own salt
    char const* const hash = id.empty() ? nullptr : crypt_r(id.c_str(), kHow, &data);
    if (hash == nullptr || std::strncmp(hash, kHow, std::strlen(kHow)) != 0)
        return {};
    return std::string(hash + std::strlen(kHow)).substr(0, 16);
}

/** Spaces may stand after a comma. */
std::string address(std::string text) {
    constexpr char const* kAllowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-:%[]";
    CLI::detail::trim(text);
    if (text.empty() || text.find_first_not_of(kAllowed) != std::string::npos)
        throw CLI::ValidationError("\"" + text + "\" is no address");
    return text;
}

bool isLoopback(std::string const& interface) {
    return interface == "lo" || interface.rfind("127.", 0) == 0;
}

/** The one table of options: each of them is one of the configuration file, too. */
void describe(CLI::App& app, LinkOptions& options, Place& place) {
    app.add_option("--interface", options.bus.interface,
                   "network interface, by name or address; default: that of the default route, or "
                   "the only one");
    app.add_option("--peers", options.bus.peers,
                   "addresses of the other machines, where the network has no multicast")
        ->delimiter(',')
        ->transform(address);
    app.add_option("--domain", options.bus.domain, "the links of one number see each other")
        ->check(CLI::Range(0, 230))
        ->capture_default_str();
    app.add_option("--groups", options.groups, "groups whose terminations all machines see")
        ->delimiter(',')
        ->check(CLI::Range(1, 255))
        ->capture_default_str();
    app.add_option("--machine", options.machine,
                   "name of this machine, another for each; default: made of /etc/machine-id");
    app.add_option("--fragment", options.bus.fragment, "bytes of a datagram")
        ->check(CLI::Range(512, 65000))
        ->capture_default_str();
    app.add_option("--security", options.security,
                   "folder with this machine's certificate, as reflectorb-link-keys makes it");
    app.add_flag("--open", options.open,
                 "let everybody on the network join, read and send: there is no authentication");
    app.add_option("--slot", place.slot, "slot of this machine; default: TRANSPORT_SLOT")
        ->check(CLI::Range(1, 255));
    app.add_option("--directory", place.directory, "rendezvous folder; default: TRANSPORT_DIR");
}

/** Its options stand on the command line only. */
CLI::App* describeStatus(CLI::App& app, StatusRequest& request) {
    CLI::App* const status =
        app.add_subcommand("status", "Ask the link of the rendezvous folder how it is");
    status->fallthrough();
    status->add_flag("--json", request.json, "print JSON");
    status->add_option("--machines", request.machines, "other machines that are to be linked")
        ->capture_default_str();
    return status;
}

std::optional<int> secure(LinkOptions& options) {
    if (options.open)
        return complain("--open lets everybody in, --security does not: say one of them");
    std::string const fault = findSecurity(options.security, options.bus.security);
    if (!fault.empty())
        return complain("--security: " + fault);
    REFLECTORB_LOG(5, kSource, "who joins needs a certificate, as this machine has in %s",
                   options.bus.security.folder.c_str());
    return std::nullopt;
}

/** Who may join: those of the authority, or everybody where that is meant or nobody else is. */
std::optional<int> checkAccess(LinkOptions& options) {
    if (!options.security.empty())
        return secure(options);
    std::string const network =
        options.bus.interface.empty() ? "the network" : options.bus.interface;
    std::string const danger = "whoever reaches " + network + " can join, read and send everything";
    if (options.open)
        REFLECTORB_LOG(4, kSource, "--open: %s", danger.c_str());
    else if (isLoopback(options.bus.interface))
        REFLECTORB_LOG(5, kSource, "not secured: %s", danger.c_str());
    else
        return complain(danger + ", since links do not authenticate each other: give --security " +
                        "DIR, or say --open if that is meant");
    return std::nullopt;
}

/** Nothing when all is well. */
std::optional<int> check(LinkOptions& options, Place const& place) {
    if (place.slot != 0 && !Transport::Setup::slot(place.slot))
        return kUsage;
    if (!place.directory.empty() && !Transport::Setup::directory(place.directory))
        return kUsage;
    if (options.status)
        return std::nullopt;
    if (options.machine.empty())
        options.machine = usualName();
    if (options.machine.empty())
        return complain("no /etc/machine-id: give --machine NAME");
    if (printable(options.machine) != options.machine)
        return complain("--machine: a name has up to " + std::to_string(kMostName) +
                        " printable characters of ASCII");
    return checkAccess(options);
}

}  // namespace

std::optional<int> readOptions(int argc, char** argv, LinkOptions& options) {
    CLI::App app(
        "Links this machine's rendezvous folder (TRANSPORT_DIR) and slot (TRANSPORT_SLOT) "
        "with those of other machines.",
        "reflectorb-link");
    app.set_version_flag("--version", "reflectorb-link " REFLECTORB_VERSION);
    Place place;
    std::string file;
    describe(app, options, place);
    StatusRequest request;
    CLI::App const* const status = describeStatus(app, request);
    app.add_option("--config", file,
                   std::string("file with further options, a line \"key = value\" for each; "
                               "default: ") +
                       kUsualFile + ", if there is one")
        ->configurable(false);
    try {
        app.parse(argc, argv);
        readOptionFile(app, file.empty() ? kUsualFile : file, !file.empty());
    } catch (CLI::ParseError const& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    } catch (OptionFileError const& error) {
        return complain(error.what());
    }
    if (status->parsed())
        options.status = request;
    return check(options, place);
}

}  // namespace Link
