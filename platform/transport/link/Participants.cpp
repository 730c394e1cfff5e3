#include "platform/transport/link/Participants.h"

#include <algorithm>
#include <vector>

#include "logging/LineLimit.h"
#include "oswrap/Lock.h"

namespace Link {
namespace {

constexpr char const* kSource = "LinkParticipants";

/** Who begins looks for others first, and waits for one of its slot who may be gone. */
constexpr long long kPatience = 5'000'000'000;
/** More than a node has machines; whoever makes strangers at will makes no more lines. */
constexpr std::size_t kMostStrangers = 256;

}  // namespace

std::string printable(std::string text) {
    text.resize(std::min(text.size(), kMostName));
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

bool Participants::announced(std::uint64_t epoch, Writer writer, Guid const& participant) {
    OSWrap::Lock<> lock(mutex_);
    strangers_.erase(participant);
    Announcer& announcer = announcers_.try_emplace(epoch, Announcer{participant, {}}).first->second;
    if (announcer.participant != participant)
        return false;
    announcer.writers.insert(writer);
    return true;
}

std::optional<bool> Participants::isKnown(std::uint64_t epoch, Writer writer) const {
    OSWrap::Lock<> lock(mutex_);
    auto const found = announcers_.find(epoch);
    if (found == announcers_.end())
        return false;
    return found->second.writers.count(writer) != 0 ? std::optional<bool>(true) : std::nullopt;
}

bool Participants::isOf(std::uint64_t epoch, Writer writer, Guid const& participant) {
    OSWrap::Lock<> lock(mutex_);
    auto const found = announcers_.find(epoch);
    if (found == announcers_.end() || found->second.participant != participant)
        return false;
    found->second.writers.insert(writer);
    return true;
}

void Participants::lost(std::uint64_t epoch) {
    OSWrap::Lock<> lock(mutex_);
    announcers_.erase(epoch);
}

void Participants::seen(Guid const& participant, std::string const& name, long long time) {
    OSWrap::Lock<> lock(mutex_);
    for (auto const& [epoch, announcer] : announcers_)
        if (announcer.participant == participant)
            return;
    if (strangers_.size() < kMostStrangers)
        strangers_.try_emplace(participant, Sighting{printable(name), time});
}

void Participants::gone(Guid const& participant) {
    OSWrap::Lock<> lock(mutex_);
    strangers_.erase(participant);
}

int Participants::tellStrangers(long long time) {
    std::vector<std::string> names;
    long long next = -1;
    {
        OSWrap::Lock<> lock(mutex_);
        for (auto at = strangers_.begin(); at != strangers_.end();) {
            long long const left = at->second.since + kPatience - time;
            if (left <= 0)
                names.push_back(std::move(at->second.name));
            else
                next = next < 0 ? left : std::min(next, left);
            at = left <= 0 ? strangers_.erase(at) : std::next(at);
        }
    }
    static Logging::LineLimit limit;
    for (std::string const& name : names)
        REFLECTORB_LOG_LIMITED(
            limit, 3, kSource,
            "%s is kept out: either side lacks a certificate that is good for its slot",
            name.c_str());
    return next < 0 ? -1 : static_cast<int>(next / 1'000'000) + 1;
}

}  // namespace Link
