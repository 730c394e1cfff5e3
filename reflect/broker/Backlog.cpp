#include "reflect/broker/Backlog.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

namespace {

// A load: the messages in the upper bits, their bytes in the lower ones, so that both change at
// once. Neither comes near its end: the bytes are less than 2^40 by the largest bounds.
constexpr unsigned int kMessageShift = 40;
constexpr std::uint64_t kOneMessage = std::uint64_t{1} << kMessageShift;
/** What a message takes beside its bytes. */
constexpr std::size_t kHeadSize = 64;
constexpr std::uint64_t kKibibyte = 1024;
/** A sender is held back when more of its messages wait, however many may: what others send waits
 * behind them. Many more than a receiving thread takes at a time, so that who serves them does not
 * run out of them meanwhile. */
constexpr std::uint64_t kMuch = 512;

}  // namespace

Backlog::Amount Backlog::amountOf(std::uint64_t load) {
    return {load & (kOneMessage - 1), load >> kMessageShift};
}

std::uint64_t Backlog::loadOf(std::size_t size) {
    return kOneMessage + size + kHeadSize;
}

/** What one sender may have waiting now. */
Backlog::Amount Backlog::allowed() const {
    Amount const used = amountOf(total_.load());
    auto const rest = [](std::uint64_t most, std::uint64_t taken) {
        return most > taken ? most - taken : 0;
    };
    return {std::min(static_cast<std::uint64_t>(most_.senderKibibytes) * kKibibyte,
                     rest(static_cast<std::uint64_t>(most_.kibibytes) * kKibibyte, used.bytes)),
            std::min(static_cast<std::uint64_t>(most_.senderMessages),
                     rest(static_cast<std::uint64_t>(most_.messages), used.messages))};
}

/** A first message may be larger than what one sender may have, as long as it leaves as much. */
bool Backlog::fits(Amount share, Amount more) const {
    Amount const used = amountOf(total_.load());
    if (used.messages == 0)
        return true;
    Amount const most = allowed();
    std::uint64_t const all = static_cast<std::uint64_t>(most_.kibibytes) * kKibibyte;
    bool const leavesAsMuch = used.bytes + 2 * more.bytes <= all;
    bool const bytesFit =
        share.messages == 0 ? leavesAsMuch : share.bytes + more.bytes <= most.bytes && leavesAsMuch;
    return bytesFit && share.messages + 1 <= most.messages;
}

Backlog::Share* Backlog::admit(Transport::TerminationId sender, std::size_t size) {
    std::uint64_t const load = loadOf(size);
    Share* const share = shareOf(sender);
    if (!share || !fits(amountOf(share->load_.load()), amountOf(load)))
        return nullptr;
    share->load_.fetch_add(load);
    total_.fetch_add(load);
    return share;
}

bool Backlog::Share::release(std::size_t size) {
    std::uint64_t const load = loadOf(size);
    total_.fetch_sub(load);
    return amountOf(load_.fetch_sub(load) - load).messages <= kMuch / 2;
}

Backlog::Share* Backlog::shareOf(Transport::TerminationId sender) {
    if (last_ && lastSender_ == sender)
        return last_;
    auto found = shares_.find(sender);
    if (found == shares_.end()) {
        forgetIdle();
        try {
            found = shares_.try_emplace(sender, total_).first;
        } catch (std::bad_alloc const&) {
            return nullptr;
        }
    }
    lastSender_ = sender;
    last_ = &found->second;
    return last_;
}

/** Each sender that stays costs one look for each that comes. */
void Backlog::forgetIdle() {
    if (shares_.size() < enough_)
        return;
    last_ = nullptr;
    for (auto entry = shares_.begin(); entry != shares_.end();)
        entry = entry->second.load_.load() == 0 && !entry->second.heldBack_ ? shares_.erase(entry)
                                                                            : std::next(entry);
    enough_ = std::max<std::size_t>(64, 2 * shares_.size());
}

bool Backlog::isMuch(Share const& share) const {
    Amount const waiting = amountOf(share.load_.load());
    Amount const most = allowed();
    return waiting.bytes > most.bytes / 2 || waiting.messages > std::min(most.messages / 2, kMuch);
}

bool Backlog::isLittle(Share const& share) const {
    Amount const waiting = amountOf(share.load_.load());
    Amount const most = allowed();
    return waiting.messages == 0 || (waiting.bytes <= most.bytes / 4 &&
                                     waiting.messages <= std::min(most.messages / 4, kMuch / 2));
}

bool Backlog::holdBack(Transport::TerminationId sender) {
    auto const found = shares_.find(sender);
    if (found == shares_.end() || found->second.load_.load() == 0)
        return false;
    if (!std::exchange(found->second.heldBack_, true))
        ++heldBack_;
    return true;
}

Backlog::Mark Backlog::letGo(Transport::TerminationId sender, When when) {
    auto const found = shares_.find(sender);
    if (found == shares_.end() || !found->second.heldBack_)
        return Mark::None;
    if (when == When::Little && !isLittle(found->second))
        return Mark::Stays;
    found->second.heldBack_ = false;
    --heldBack_;
    return Mark::Taken;
}
