#include "platform/transport/IdentityValues.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace Transport {
namespace {

bool isOwnFolder(std::string const& path) {
    struct stat found;
    return isFolderPath(path) && ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) &&
           found.st_uid == ::geteuid();
}

}  // namespace

std::optional<int> parseNumber(std::string const& text, int lowest, int highest) {
    int value = 0;
    char const* const end = text.data() + text.size();
    auto const [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < lowest || value > highest)
        return std::nullopt;
    return value;
}

std::optional<std::vector<int>> parseAxuSlots(std::string const& text) {
    std::vector<int> slots;
    for (std::size_t start = 0;;) {
        std::size_t const comma = std::min(text.find(',', start), text.size());
        auto const slot = parseNumber(text.substr(start, comma - start), kHighestControllerSlot + 1,
                                      kHighestSlot);
        if (!slot)
            return std::nullopt;
        slots.push_back(*slot);
        if (comma == text.size())
            return slots;
        start = comma + 1;
    }
}

bool isAxuSlot(int slot) {
    return slot > kHighestControllerSlot && slot <= kHighestSlot;
}

bool isBacklog(Backlog const& most) {
    auto const within = [](int value, int lowest, int highest) {
        return value >= lowest && value <= highest;
    };
    return within(most.senderKibibytes, kLeastBacklogKibibytes, kMostBacklogKibibytes) &&
           within(most.kibibytes, kLeastBacklogKibibytes, kMostBacklogKibibytes) &&
           within(most.senderMessages, kLeastBacklogMessages, kMostBacklogMessages) &&
           within(most.messages, kLeastBacklogMessages, kMostBacklogMessages);
}

bool isActorName(std::string const& name) {
    auto const isControl = [](char c) {
        auto const byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    };
    return !name.empty() && name.size() <= kLongestActor &&
           std::none_of(name.begin(), name.end(), isControl);
}

bool isFolderPath(std::string const& path) {
    return !path.empty() && path.front() == '/' && path.find('\0') == std::string::npos;
}

std::optional<std::string> environment(char const* variable) {
    char const* const value = std::getenv(variable);
    if (value == nullptr || *value == '\0')
        return std::nullopt;
    return std::string(value);
}

std::string defaultFolder() {
    if (auto const runtime = environment("XDG_RUNTIME_DIR"); runtime && isOwnFolder(*runtime))
        return *runtime + "/reflectorb";
    std::string const user = std::to_string(::geteuid());
    if (std::string const runtime = "/run/user/" + user; isOwnFolder(runtime))
        return runtime + "/reflectorb";
    return "/tmp/reflectorb-" + user;
}

}  // namespace Transport
