#pragma once

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
 * All senders of one process together are bounded alike, however many they are: beyond what is
 * still free, each further one of them finds less than the one before. A quarter of the room stays
 * for other processes, and the senders behind a link, which are those of other machines, leave each
 * other some.
 *
 * What others send waits behind what a sender has sent, so it is to be held back before its bound:
 * beyond a few hundred messages as soon as what waits takes long to serve, by the pace so far, and
 * at half of the bound at the latest. When that much waits of a process, those of its senders that
 * have more than an equal part of it there are.
 *
 * A message waits from its arrival until a worker begins to serve it: what is being served may wait
 * for a sender in its turn, but what waits goes on by itself.
 *
 * What is being served keeps a thread, and a transaction id while it waits for others, perhaps for
 * ever. So of one sender no more is served at a time than may still be served of all, and likewise
 * of one process.
 *
 * Everything runs under the mutex of the queue that owns the backlog.
 */
class Backlog {
public:
    struct Amount {
        std::uint64_t bytes = 0;
        std::uint64_t messages = 0;
    };
    /** However slowly they are served: many more than a receiving thread takes at a time, so that
     * who serves them does not run out of them meanwhile. */
    static constexpr std::uint64_t kLeastEnough = 512;
    /** So many messages are served at a time: half of the transaction ids are left for others. */
    static constexpr unsigned int kMostServed = 2048;

private:
    /** What there is of a sender, or of all senders of a process. */
    struct Load {
        Amount waiting;
        std::uint64_t enough = kLeastEnough;  // messages, before it is to be held back
        unsigned int served = 0;              // messages that are being served
    };
    struct Process {
        Load load;
        unsigned int senders = 0;  // that are known
        unsigned int waiting = 0;  // of them, those of which something waits
        unsigned int serving = 0;  // those of which something is being served
    };

public:
    /** What waits of one sender. Stays where it is as long as something waits or is being
     * served. */
    class Share {
        friend Backlog;

        Load load_;
        bool heldBack_ = false;
        Process* process_ = nullptr;  // none only until it is entered
    };

    explicit Backlog(Transport::Backlog const& most) : most_(most) {}

    /** None: for what the broker queues for itself, of which there is little. */
    enum class Bounds { Heeded, None };
    /** Whether the sender's process need not be told. */
    bool knows(Transport::TerminationId sender) { return find(sender) != nullptr; }
    /** Enters a message of `size` bytes; null when it is too much, or memory has run out. `process`
     * of a sender that is not known is its owner, or 0: all who have none share what one may have,
     * such as those who have gone and whose last messages come. */
    Share* admit(Transport::TerminationId sender, int process, std::size_t size,
                 Bounds bounds = Bounds::Heeded);
    /** Takes a message of `size` bytes out. True when so little is left that the sender, which was
     * marked as held back, may go on: its mark is taken away. The share may be gone with the next
     * `admit`, unless the message begins to be served. */
    bool release(Share& share, std::size_t size);
    /** One that has been taken out is going to be served; false when too many of its sender are. */
    bool beginServing(Share& share);
    /** It has been served. */
    void endServing(Share& share);
    /** Whether so much of a sender waits that it is to be held back. */
    bool isMuch(Share& share);
    /** Marks a sender as held back; false when nothing of it waits. */
    bool holdBack(Transport::TerminationId sender);
    enum class When { Little, Anyway };
    enum class Mark { None, Stays, Taken };
    /** Takes the mark away when so little waits that the sender may go on, or anyway. */
    Mark letGo(Transport::TerminationId sender, When when);
    /** Whether any are marked. */
    bool holdsBack() const { return heldBack_ != 0; }

private:
    std::uint64_t charge(std::uint64_t bytes) const;
    bool fits(Share const& share, std::uint64_t bytes) const;
    bool fitsProcess(Share const& share, std::uint64_t bytes) const;
    Amount free() const;
    Amount allowed() const;
    Share* find(Transport::TerminationId sender);
    Share* shareOf(Transport::TerminationId sender, int process);
    void enter(Share& share, std::uint64_t bytes);
    bool hasEqualPart(Share const& share, unsigned int fraction) const;
    bool isHalf(Share const& share) const;
    void setEnough(Share& share);
    bool isLittle(Share const& share) const;
    bool isServedSoon();
    void letGo(Share& share);
    void forgetIdle();

    Transport::Backlog const most_;
    Amount total_;
    // The pace: what has been served since somebody asked for it.
    std::uint64_t served_ = 0;
    long long askedAt_ = 0;  // nanoseconds of the monotonic clock
    unsigned int heldBack_ = 0;
    unsigned int beingServed_ = 0;
    std::unordered_map<Transport::TerminationId, Share> shares_;
    std::unordered_map<int, Process> processes_;
    std::size_t manyShares_ = 64;  // so many, before idle ones are forgotten
    // The sender that was asked for last.
    Transport::TerminationId lastSender_;
    Share* last_ = nullptr;
};
