#include "platform/transport/link/Security.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "logging/LineLimit.h"

namespace Link {
namespace {

namespace fs = std::filesystem;

constexpr char const* kSource = "LinkSecurity";
/** So long before a certificate's end it is not used any more. */
constexpr std::time_t kLeave = 2;
constexpr std::time_t kDay = 86'400;
constexpr std::time_t kWarn = 30 * kDay;
/** The wall clock may be set at any time. */
constexpr std::time_t kLook = 60;

constexpr char const* kFiles[] = {"authority.pem",  "machine.pem",     "machine.key",
                                  "governance.p7s", "permissions.p7s", "revoked.pem"};

std::string pluginIn(std::string const& folder, char const* which) {
    return folder + "/libdds_security_" + which + ".so";
}

bool arePluginsIn(std::string const& folder) {
    for (char const* which : {"auth", "crypto", "ac"})
        if (access(pluginIn(folder, which).c_str(), R_OK) != 0)
            return false;
    return true;
}

/** A real path; empty when there is none. */
std::string realPath(std::string const& path) {
    std::unique_ptr<char, decltype(&std::free)> const real(realpath(path.c_str(), nullptr),
                                                           &std::free);
    return real ? real.get() : "";
}

/** The folder of the engine's library, wherever this process has it from. */
std::string engineFolder() {
    Dl_info info{};
    void* const symbol = dlsym(RTLD_DEFAULT, "dds_create_participant");
    if (symbol == nullptr || dladdr(symbol, &info) == 0 || info.dli_fname == nullptr)
        return {};
    return fs::path(realPath(info.dli_fname)).parent_path();
}

/** They lie beside the engine, or in a folder beside it that is called after it, out of the
 * loader's way. Empty: nowhere. */
std::string pluginFolder(std::string const& engine) {
    if (arePluginsIn(engine))
        return engine;
    std::error_code error;
    for (fs::directory_entry const& entry : fs::directory_iterator(engine, error))
        if (entry.path().filename().string().rfind("libddsc", 0) == 0 && arePluginsIn(entry.path()))
            return entry.path();
    return {};
}

/** What is wrong with a file, or a folder; empty: nothing. */
std::string faultOf(std::string const& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0)
        return path + ": " + std::strerror(errno);
    if (status.st_uid != geteuid() && status.st_uid != 0)
        return path + " is another user's";
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return path + " may be written by others: chmod go-w";
    return {};
}

std::string faultOfFiles(std::string const& folder) {
    std::string fault = faultOf(folder);
    for (char const* file : kFiles)
        if (fault.empty())
            fault = faultOf(folder + "/" + file);
    struct stat key {};
    if (fault.empty() && stat((folder + "/machine.key").c_str(), &key) == 0 &&
        ((key.st_mode & S_IROTH) != 0 ||
         // Root's own reaches this user by the group alone.
         ((key.st_mode & S_IRGRP) != 0 && key.st_uid == geteuid())))
        return folder + "/machine.key may be read by others: chmod 600";
    return fault;
}

/** What the signed permissions say in the clear; 0: nothing. */
std::time_t endIn(std::string const& permissions) {
    std::ifstream file(permissions);
    std::string const text((std::istreambuf_iterator<char>(file)), {});
    std::string const mark = "<not_after>";
    std::size_t const at = text.find(mark);
    std::tm parts{};
    if (at == std::string::npos ||
        strptime(text.c_str() + at + mark.size(), "%Y-%m-%dT%H:%M:%SZ", &parts) == nullptr)
        return 0;
    return timegm(&parts);
}

std::string timeText(std::time_t time) {
    std::tm parts{};
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", gmtime_r(&time, &parts));
    return text;
}

std::string element(char const* name, std::string const& text) {
    return std::string("<") + name + ">" + escaped(text) + "</" + name + ">";
}

std::string library(Security const& security, char const* which, char const* verb) {
    return "<Library path=\"" + escaped(pluginIn(security.plugins, which)) +
           "\" initFunction=\"init_" + verb + "\" finalizeFunction=\"finalize_" + verb + "\"/>";
}

}  // namespace

std::string findSecurity(std::string const& folder, Security& security) {
    std::string const engine = engineFolder();
    security.plugins = pluginFolder(engine);
    if (security.plugins.empty())
        return "the DDS engine in " + engine + " has no security plug-ins (libdds_security_*.so)";
    std::string const real = realPath(folder);
    if (real.empty())
        return folder + ": " + std::strerror(errno);
    std::string const fault = faultOfFiles(real);
    if (!fault.empty())
        return fault;
    security.folder = real;
    security.end = endIn(real + "/permissions.p7s");
    return security.end == 0 ? real + "/permissions.p7s tells no end" : "";
}

// ---- Validity ----------------------------------------------------------------------------------

bool Validity::renew(Security& security) {
    if (!security.wanted())
        return true;
    std::string const folder = security.folder;
    std::string fault = findSecurity(folder, security);
    if (fault.empty() && security.end - kLeave <= std::time(nullptr))
        fault = "the certificate in " + folder + " was good until " + timeText(security.end);
    if (fault.empty()) {
        folder_ = folder;
        end_ = security.end;
        return true;
    }
    static Logging::LineLimit limit(1);
    REFLECTORB_LOG_LIMITED(limit, 3, kSource, "%s: it is to be renewed", fault.c_str());
    return false;
}

bool Validity::isOver() {
    std::time_t const now = std::time(nullptr);
    if (end_ == 0 || now < end_ - kWarn)
        return false;
    if (now >= end_ - kLeave) {
        REFLECTORB_LOG(3, kSource,
                       "the certificate in %s ends: without another one nobody is linked",
                       folder_.c_str());
        return true;
    }
    if (now >= warned_ + kDay) {
        REFLECTORB_LOG(4, kSource, "the certificate in %s is good until %s only", folder_.c_str(),
                       timeText(end_).c_str());
        warned_ = now;
    }
    return false;
}

int Validity::askAgainIn() const {
    if (end_ == 0)
        return -1;
    std::time_t const left = end_ - kLeave - std::time(nullptr);
    return static_cast<int>(std::clamp<std::time_t>(left, 0, kLook)) * 1000;
}

// ---- The engine's ------------------------------------------------------------------------------

std::string engineConfiguration(Security const& security) {
    if (!security.wanted())
        return {};
    auto const file = [&security](char const* name) {
        return "file:" + security.folder + "/" + name;
    };
    return "<Security><Authentication>" + library(security, "auth", "authentication") +
           element("IdentityCA", file("authority.pem")) +
           element("IdentityCertificate", file("machine.pem")) +
           element("PrivateKey", file("machine.key")) + element("CRL", file("revoked.pem")) +
           "</Authentication><Cryptographic>" + library(security, "crypto", "crypto") +
           "</Cryptographic><AccessControl>" + library(security, "ac", "access_control") +
           element("PermissionsCA", file("authority.pem")) +
           element("Governance", file("governance.p7s")) +
           element("Permissions", file("permissions.p7s")) + "</AccessControl></Security>";
}

std::string escaped(std::string const& text) {
    std::string safe;
    for (char const c : text) {
        switch (c) {
            case '<':
                safe += "&lt;";
                break;
            case '>':
                safe += "&gt;";
                break;
            case '&':
                safe += "&amp;";
                break;
            case '"':
                safe += "&quot;";
                break;
            case '\'':
                safe += "&apos;";
                break;
            default:
                safe += c;
        }
    }
    return safe;
}

}  // namespace Link
