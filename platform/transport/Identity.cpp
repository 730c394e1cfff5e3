#include "platform/transport/Identity.h"

#include <errno.h>

#include <algorithm>

#include "logging/Log.h"
#include "oswrap/AdaptiveWait.h"
#include "oswrap/Lock.h"
#include "platform/transport/IdentityValues.h"
#include "transport/IdInfo.h"

namespace Transport {
namespace {

constexpr char const* kSource = "TransportIdentity";

bool isNumberFrom(int value, int lowest, int highest) {
    return value >= lowest && value <= highest;
}

}  // namespace

Identity& Identity::instance() {
    static Identity& identity = *new Identity;
    return identity;
}

/** Runs `apply` under the mutex unless the identity is in use already. */
template <class Apply>
bool Identity::change(char const* what, Apply apply) {
    bool tooLate = false;
    {
        OSWrap::Lock<> lock(mutex_);
        tooLate = frozen_;
        if (!tooLate)
            apply();
    }
    if (tooLate)
        REFLECTORB_LOG(3, kSource, "The %s cannot be set any more: this process has terminations",
                       what);
    return !tooLate;
}

int Identity::resolveNumber(std::atomic<int>& value, char const* variable, int lowest, int highest,
                            int otherwise) {
    std::optional<std::string> nonsense;
    {
        OSWrap::Lock<> lock(mutex_);
        if (value == kUnresolved) {
            auto const text = environment(variable);
            auto const number = text ? parseNumber(*text, lowest, highest) : otherwise;
            value = number.value_or(kNonsense);
            if (!number)
                nonsense = text;
        }
    }
    if (nonsense)
        REFLECTORB_LOG(3, kSource, "%s is \"%s\", which is no number from %d to %d", variable,
                       nonsense->c_str(), lowest, highest);
    return value;
}

unsigned char Identity::slot() {
    int const known = slot_;
    return static_cast<unsigned char>(
        known != kUnresolved ? known : resolveNumber(slot_, "TRANSPORT_SLOT", 1, kHighestSlot));
}

unsigned char Identity::activeSlot() {
    int const known = activeSlot_;
    return static_cast<unsigned char>(
        known != kUnresolved
            ? known
            : resolveNumber(activeSlot_, "TRANSPORT_ACTIVE_SLOT", 1, kHighestControllerSlot));
}

/** All 0 where the environment makes no sense. */
Backlog Identity::backlog() {
    return {resolveNumber(senderKibibytes_, "TRANSPORT_SENDER_KIB", kLeastBacklogKibibytes,
                          kMostBacklogKibibytes, 8 * 1024),
            resolveNumber(senderMessages_, "TRANSPORT_SENDER_MESSAGES", kLeastBacklogMessages,
                          kMostBacklogMessages, 8 * 1024),
            resolveNumber(backlogKibibytes_, "TRANSPORT_BACKLOG_KIB", kLeastBacklogKibibytes,
                          kMostBacklogKibibytes, 64 * 1024),
            resolveNumber(backlogMessages_, "TRANSPORT_BACKLOG_MESSAGES", kLeastBacklogMessages,
                          kMostBacklogMessages, 64 * 1024)};
}

int Identity::silence() {
    std::optional<std::string> nonsense;
    {
        OSWrap::Lock<> lock(mutex_);
        if (silence_ == kUnresolved) {
            std::string const text = environment("TRANSPORT_ON_SILENCE").value_or("abort");
            silence_ = text == "abort" ? kAbort : text == "fail" ? kFail : kNonsense;
            if (silence_ == kNonsense)
                nonsense = text;
        }
    }
    if (nonsense)
        REFLECTORB_LOG(3, kSource,
                       "TRANSPORT_ON_SILENCE is \"%s\", which is neither abort nor fail",
                       nonsense->c_str());
    return silence_;
}

void Identity::setFailOnSilence(bool on) {
    OSWrap::Lock<> lock(mutex_);
    silence_ = on ? kFail : kAbort;
}

/** False when the environment's list makes no sense. */
bool Identity::resolveAxuSlots() {
    if (axuState_ != AxuState::Unresolved)
        return axuState_ == AxuState::Known;
    std::optional<std::string> nonsense;
    {
        OSWrap::Lock<> lock(mutex_);
        if (axuState_ != AxuState::Unresolved)
            return axuState_ == AxuState::Known;
        auto const text = environment("TRANSPORT_AXU_SLOTS");
        auto const slots = text ? parseAxuSlots(*text) : std::vector<int>();
        for (int const slot : slots.value_or(std::vector<int>()))
            axuSlots_[static_cast<unsigned>(slot) / 32] |= 1u << (slot % 32);
        axuState_ = slots ? AxuState::Known : AxuState::Nonsense;
        if (!slots)
            nonsense = text;
    }
    if (nonsense)
        REFLECTORB_LOG(3, kSource,
                       "TRANSPORT_AXU_SLOTS is \"%s\", which is no list of numbers from %d to %d "
                       "with commas between",
                       nonsense->c_str(), kHighestControllerSlot + 1, kHighestSlot);
    return !nonsense;
}

bool Identity::axuInSlot(unsigned char slot) {
    resolveAxuSlots();
    return (axuSlots_[slot / 32u] >> (slot % 32u) & 1u) != 0;
}

void Identity::useActor(std::string const& name) {
    actors_.push_back(new std::string(name));
    actor_ = actors_.back();
}

std::string const& Identity::actor() {
    if (std::string const* const known = actor_; known != nullptr)
        return *known;
    bool nonsense = false;
    std::string name;
    {
        OSWrap::Lock<> lock(mutex_);
        if (actor_ != nullptr)
            return *actor_;
        name = environment("TRANSPORT_ACTOR").value_or(program_invocation_short_name);
        nonsense = !isActorName(name);
        useActor(nonsense ? std::string() : name);
    }
    if (nonsense)
        REFLECTORB_LOG(3, kSource,
                       "The actor's name must have 1 to %zu characters, no control characters",
                       kLongestActor);
    else
        Logging::setActor(name.c_str());
    return *actor_;
}

bool Identity::setSlot(int value) {
    if (!isNumberFrom(value, 1, kHighestSlot)) {
        REFLECTORB_LOG(3, kSource, "%d is no slot: slots are 1 to %d", value, kHighestSlot);
        return false;
    }
    return change("slot", [&] { slot_ = value; });
}

bool Identity::setActiveSlot(int value) {
    if (!isNumberFrom(value, 1, kHighestControllerSlot)) {
        REFLECTORB_LOG(3, kSource, "%d is not the slot of a controller, which is 1 or 2", value);
        return false;
    }
    OSWrap::Lock<> lock(mutex_);
    activeSlot_ = value;
    return true;
}

bool Identity::setAxuSlots(std::vector<int> const& values) {
    auto const wrong =
        std::find_if_not(values.begin(), values.end(), [](int slot) { return isAxuSlot(slot); });
    if (wrong != values.end()) {
        REFLECTORB_LOG(3, kSource, "%d is no slot of an auxiliary unit: these are %d to %d", *wrong,
                       kHighestControllerSlot + 1, kHighestSlot);
        return false;
    }
    return change("list of auxiliary units", [&] {
        std::array<std::uint32_t, 8> bits{};
        for (int const slot : values)
            bits[static_cast<unsigned>(slot) / 32] |= 1u << (slot % 32);
        for (std::size_t i = 0; i < bits.size(); ++i)
            axuSlots_[i] = bits[i];
        axuState_ = AxuState::Known;
    });
}

bool Identity::setActor(std::string const& name) {
    if (!isActorName(name)) {
        REFLECTORB_LOG(3, kSource,
                       "The actor's name must have 1 to %zu characters, no control characters",
                       kLongestActor);
        return false;
    }
    if (!change("actor's name", [&]() OSW_NO_ANALYSIS { useActor(name); }))
        return false;
    Logging::setActor(name.c_str());
    return true;
}

bool Identity::setBacklog(Backlog const& most) {
    if (!isBacklog(most)) {
        REFLECTORB_LOG(3, kSource,
                       "What may wait is %d KiB and %d messages of one sender, %d KiB and %d "
                       "messages in all, where %d to %d and %d to %d make sense",
                       most.senderKibibytes, most.senderMessages, most.kibibytes, most.messages,
                       kLeastBacklogKibibytes, kMostBacklogKibibytes, kLeastBacklogMessages,
                       kMostBacklogMessages);
        return false;
    }
    return change("backlog", [&] {
        senderKibibytes_ = most.senderKibibytes;
        senderMessages_ = most.senderMessages;
        backlogKibibytes_ = most.kibibytes;
        backlogMessages_ = most.messages;
    });
}

bool Identity::setDirectory(std::string const& path) {
    if (!isFolderPath(path)) {
        REFLECTORB_LOG(3, kSource, "\"%s\" is no absolute path of a rendezvous folder",
                       path.c_str());
        return false;
    }
    return change("rendezvous folder", [&]() OSW_NO_ANALYSIS { directory_ = path; });
}

/** Empty when the environment names no absolute path. */
std::string Identity::directory() {
    {
        OSWrap::Lock<> lock(mutex_);
        if (directory_)
            return *directory_;
    }
    auto const path = environment("TRANSPORT_DIR");
    if (!path)
        return defaultFolder();
    if (isFolderPath(*path))
        return *path;
    REFLECTORB_LOG(3, kSource, "TRANSPORT_DIR is \"%s\", which is no absolute path", path->c_str());
    return {};
}

std::optional<IdentitySnapshot> Identity::snapshot() {
    IdentitySnapshot const values{slot(), actor(), directory()};
    if (values.slot == 0 || !isBacklog(backlog()) || silence() == kNonsense || activeSlot() == 0 ||
        !resolveAxuSlots() || values.actor.empty() || values.directory.empty()) {
        REFLECTORB_LOG(3, kSource,
                       "This process gets no terminations: its identity makes no sense");
        return std::nullopt;
    }
    return values;
}

void Identity::freeze() {
    OSWrap::Lock<> lock(mutex_);
    frozen_ = true;
}

// ---- The public face ----------------------------------------------------------------------------

IdInfo& IdInfo::instance() {
    static IdInfo& info = *new IdInfo;
    return info;
}

unsigned char IdInfo::getSlot() const {
    return Identity::instance().slot();
}

bool IdInfo::isAxu() const {
    return axuInSlot(getSlot());
}

unsigned char IdInfo::activeSlot() const {
    return Identity::instance().activeSlot();
}

bool IdInfo::axuInSlot(unsigned char slot) const {
    return Identity::instance().axuInSlot(slot);
}

std::string const& IdInfo::getActor() const {
    return Identity::instance().actor();
}

bool Setup::slot(int value) {
    return Identity::instance().setSlot(value);
}

bool Setup::activeSlot(int value) {
    return Identity::instance().setActiveSlot(value);
}

bool Setup::axuSlots(std::vector<int> const& values) {
    return Identity::instance().setAxuSlots(values);
}

bool Setup::actor(std::string const& name) {
    return Identity::instance().setActor(name);
}

Backlog IdInfo::backlog() const {
    return Identity::instance().backlog();
}

bool Setup::backlog(Backlog const& most) {
    return Identity::instance().setBacklog(most);
}

bool Setup::directory(std::string const& path) {
    return Identity::instance().setDirectory(path);
}

bool IdInfo::failsOnSilence() const {
    return Identity::instance().failsOnSilence();
}

bool Setup::failOnSilence(bool on) {
    Identity::instance().setFailOnSilence(on);
    return true;
}

bool Setup::polling(bool on) {
    OSWrap::AdaptiveWait::enable(on);
    return true;
}

}  // namespace Transport
