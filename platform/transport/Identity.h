#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "oswrap/Mutex.h"
#include "transport/IdInfo.h"

namespace Transport {

/** What a rendezvous needs to know of this process. A value. */
struct IdentitySnapshot {
    unsigned char slot;
    std::string actor;
    std::string directory;
};

/**
 * The values behind IdInfo and Setup. Each one is found on first need: what the program has set,
 * else the environment, else the default. A value from the environment that makes no sense is
 * reported once, counts as absent (slot 0, empty name), and lets no termination come up; the
 * program can still set that value. One per process, never destroyed. Any thread.
 *
 * Log lines are emitted after the mutex is unlocked, because a sink may ask who it is.
 */
class Identity {
public:
    static Identity& instance();
    Identity(Identity const&) = delete;
    Identity& operator=(Identity const&) = delete;

    unsigned char slot();
    unsigned char activeSlot();
    bool axuInSlot(unsigned char slot);
    std::string const& actor();
    Backlog backlog();
    bool failsOnSilence() { return silence() == kFail; }

    bool setSlot(int value);
    bool setActiveSlot(int value);
    bool setAxuSlots(std::vector<int> const& values);
    bool setActor(std::string const& name);
    bool setBacklog(Backlog const& most);
    bool setDirectory(std::string const& path);
    void setFailOnSilence(bool on);

    /** All values, or nothing, with log lines, when one of them makes no sense. */
    std::optional<IdentitySnapshot> snapshot();
    /** From now on every setter but that of the active slot comes too late. */
    void freeze();

private:
    Identity() = default;
    ~Identity() = delete;

    template <class Apply>
    bool change(char const* what, Apply apply);
    int resolveNumber(std::atomic<int>& value, char const* variable, int lowest, int highest,
                      int otherwise = 1);
    bool resolveAxuSlots();
    void useActor(std::string const& name) OSW_REQUIRES(mutex_);
    std::string directory();
    int silence();

    static constexpr int kUnresolved = -1;
    static constexpr int kNonsense = 0;
    // What becomes of a call that nobody answers.
    static constexpr int kAbort = 1;
    static constexpr int kFail = 2;
    enum class AxuState : int { Unresolved, Known, Nonsense };

    OSWrap::Mutex mutex_;  // a leaf: nothing is called and nothing logged under it
    bool frozen_ OSW_GUARDED_BY(mutex_) = false;
    std::optional<std::string> directory_ OSW_GUARDED_BY(mutex_);
    std::vector<std::string const*> actors_ OSW_GUARDED_BY(mutex_);  // all ever used, never freed

    // Written under the mutex, read without it: they lie in the way of every call.
    std::atomic<int> slot_{kUnresolved};
    std::atomic<int> activeSlot_{kUnresolved};
    std::atomic<int> senderKibibytes_{kUnresolved};
    std::atomic<int> senderMessages_{kUnresolved};
    std::atomic<int> backlogKibibytes_{kUnresolved};
    std::atomic<int> backlogMessages_{kUnresolved};
    std::atomic<int> silence_{kUnresolved};
    std::atomic<AxuState> axuState_{AxuState::Unresolved};
    std::array<std::atomic<std::uint32_t>, 8> axuSlots_{};  // one bit per slot
    std::atomic<std::string const*> actor_{nullptr};
};

}  // namespace Transport
