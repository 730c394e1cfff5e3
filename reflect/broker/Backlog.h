#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "transport/IdInfo.h"
#include "transport/TerminationId.h"

/**
 * What waits in a broker to be served, in all and by sender, and how much more of a sender may
 * wait: as much as the bound for one sender allows, but never more than what is still free for all.
 * So those who send much share the room between them, and who sends little always finds some.
 *
 * A message waits from its arrival until a worker begins to serve it: what is being served may wait
 * for a sender in its turn, but what waits goes on by itself.
 *
 * Everything but `Share::release` runs under the mutex of the queue that owns the backlog.
 */
class Backlog {
public:
    /** What waits of one sender. Stays where it is as long as something waits. */
    class Share {
    public:
        explicit Share(std::atomic<std::uint64_t>& total) : total_(total) {}

        /** Takes a message of `size` bytes out; false when so much is left that the sender, if it
         * is held back, stays so. Any thread, without a lock; the share may be gone afterwards. */
        bool release(std::size_t size);

    private:
        friend Backlog;

        std::atomic<std::uint64_t>& total_;
        std::atomic<std::uint64_t> load_{0};
        bool heldBack_ = false;
    };

    explicit Backlog(Transport::Backlog const& most) : most_(most) {}

    /** Enters a message of `size` bytes; null when it is too much, or memory has run out. */
    Share* admit(Transport::TerminationId sender, std::size_t size);
    /** Whether so much of a sender waits that it is to be held back. */
    bool isMuch(Share const& share) const;
    /** Marks a sender as held back; false when nothing of it waits. */
    bool holdBack(Transport::TerminationId sender);
    enum class When { Little, Anyway };
    enum class Mark { None, Stays, Taken };
    /** Takes the mark away when so little waits that the sender may go on, or anyway. */
    Mark letGo(Transport::TerminationId sender, When when);
    /** Whether any are marked. */
    bool holdsBack() const { return heldBack_ != 0; }

private:
    struct Amount {
        std::uint64_t bytes;
        std::uint64_t messages;
    };
    static Amount amountOf(std::uint64_t load);
    static std::uint64_t loadOf(std::size_t size);
    bool fits(Amount share, Amount more) const;
    Amount allowed() const;
    Share* shareOf(Transport::TerminationId sender);
    bool isLittle(Share const& share) const;
    void forgetIdle();

    Transport::Backlog const most_;
    std::atomic<std::uint64_t> total_{0};
    unsigned int heldBack_ = 0;
    std::unordered_map<Transport::TerminationId, Share> shares_;
    std::size_t enough_ = 64;  // shares, before idle ones are forgotten
    // The sender that was asked for last.
    Transport::TerminationId lastSender_;
    Share* last_ = nullptr;
};
