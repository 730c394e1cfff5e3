#include "reflect/broker/Backlog.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include "oswrap/Clock.h"

namespace {

/** What a message takes beside its bytes. */
constexpr std::size_t kHeadSize = 64;
constexpr std::uint64_t kKibibyte = 1024;
/** Nanoseconds for which what others send may wait behind what quick senders have sent. */
constexpr double kSoon = 5e6;
constexpr std::uint64_t kSomeServed = 64;
constexpr long long kShort = 1'000'000;  // nanoseconds

}  // namespace

/** What one sender may have waiting now. */
Backlog::Amount Backlog::allowed() const {
    auto const rest = [](std::uint64_t most, std::uint64_t taken) {
        return most > taken ? most - taken : 0;
    };
    return {std::min(static_cast<std::uint64_t>(most_.senderKibibytes) * kKibibyte,
                     rest(static_cast<std::uint64_t>(most_.kibibytes) * kKibibyte, total_.bytes)),
            std::min(static_cast<std::uint64_t>(most_.senderMessages),
                     rest(static_cast<std::uint64_t>(most_.messages), total_.messages))};
}

/** What a message counts of what its sender may have: no more than half of it, so that the small
 * ones behind a large one find room. */
std::uint64_t Backlog::charge(std::uint64_t bytes) const {
    return std::min(bytes, static_cast<std::uint64_t>(most_.senderKibibytes) * kKibibyte / 2);
}

/** A message may be larger than what one sender may have, as long as it leaves as much. */
bool Backlog::fits(Amount const& share, std::uint64_t bytes) const {
    if (total_.messages == 0)
        return true;
    Amount const most = allowed();
    std::uint64_t const all = static_cast<std::uint64_t>(most_.kibibytes) * kKibibyte;
    bool const leavesAsMuch = total_.bytes + 2 * bytes <= all;
    bool const bytesFit =
        leavesAsMuch && (share.messages == 0 || share.bytes + charge(bytes) <= most.bytes);
    return bytesFit && share.messages + 1 <= most.messages;
}

Backlog::Share* Backlog::admit(Transport::TerminationId sender, std::size_t size, Bounds bounds) {
    std::uint64_t const bytes = size + kHeadSize;
    Share* const share = shareOf(sender);
    if (!share || (bounds == Bounds::Heeded && !fits(share->waiting_, bytes)))
        return nullptr;
    share->waiting_.bytes += charge(bytes);
    ++share->waiting_.messages;
    total_.bytes += bytes;
    ++total_.messages;
    return share;
}

bool Backlog::release(Share& share, std::size_t size) {
    std::uint64_t const bytes = size + kHeadSize;
    share.waiting_.bytes -= charge(bytes);
    --share.waiting_.messages;
    total_.bytes -= bytes;
    --total_.messages;
    ++served_;
    if (share.waiting_.messages == 0)
        share.enough_ = kLeastEnough;
    if (!share.heldBack_ || !isLittle(share))
        return false;
    letGo(share);
    return true;
}

bool Backlog::beginServing(Share& share) {
    if (share.served_ + beingServed_ >= kMostServed)
        return false;
    ++share.served_;
    ++beingServed_;
    return true;
}

void Backlog::endServing(Share& share) {
    --share.served_;
    --beingServed_;
}

Backlog::Share* Backlog::shareOf(Transport::TerminationId sender) {
    if (last_ && lastSender_ == sender)
        return last_;
    auto found = shares_.find(sender);
    if (found == shares_.end()) {
        forgetIdle();
        try {
            found = shares_.try_emplace(sender).first;
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
    if (shares_.size() < manyShares_)
        return;
    last_ = nullptr;
    for (auto entry = shares_.begin(); entry != shares_.end();)
        entry = entry->second.waiting_.messages == 0 && entry->second.served_ == 0 &&
                        !entry->second.heldBack_
                    ? shares_.erase(entry)
                    : std::next(entry);
    manyShares_ = std::max<std::size_t>(64, 2 * shares_.size());
}

bool Backlog::isMuch(Share& share) {
    Amount const& waiting = share.waiting_;
    Amount const most = allowed();
    if (waiting.bytes > most.bytes / 2 || waiting.messages > most.messages / 2)
        return true;
    if (waiting.messages <= share.enough_)
        return false;
    if (!isServedSoon()) {
        share.enough_ = kLeastEnough;
        return true;
    }
    share.enough_ += kLeastEnough;
    return false;
}

/** A few messages tell no pace, unless they have taken long. */
bool Backlog::isServedSoon() {
    long long const now = OSWrap::Clock::nowNanoseconds();
    if (served_ < kSomeServed && now - askedAt_ < kShort)
        return false;
    auto const elapsed = static_cast<double>(now - std::exchange(askedAt_, now));
    auto const served = static_cast<double>(std::exchange(served_, 0));
    return elapsed * static_cast<double>(total_.messages) <= kSoon * served;
}

bool Backlog::isLittle(Share const& share) const {
    Amount const& waiting = share.waiting_;
    Amount const most = allowed();
    return waiting.messages == 0 ||
           (waiting.bytes <= most.bytes / 4 &&
            waiting.messages <= std::min(most.messages / 4, share.enough_ / 2));
}

bool Backlog::holdBack(Transport::TerminationId sender) {
    auto const found = shares_.find(sender);
    if (found == shares_.end() || found->second.waiting_.messages == 0)
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
    letGo(found->second);
    return Mark::Taken;
}

/** The pace is asked for again when more come, with each few hundred above what is left. */
void Backlog::letGo(Share& share) {
    share.enough_ = kLeastEnough * (1 + share.waiting_.messages / kLeastEnough);
    share.heldBack_ = false;
    --heldBack_;
}
