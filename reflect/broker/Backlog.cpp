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

/** Whether a sender may have so much more, with its process and with as much `free`. With each of
 * its process' `senders` less is left for the next: all of them together never take more than half
 * of what the process leaves by itself. */
bool findsRoom(std::uint64_t own, std::uint64_t ofProcess, std::uint64_t senders,
               std::uint64_t free, std::uint64_t more) {
    return ofProcess + more <= free || own + more <= free / (senders * senders);
}

/** Messages up to the next few hundred above what waits. */
std::uint64_t nextEnough(std::uint64_t waiting) {
    return Backlog::kLeastEnough * (1 + waiting / Backlog::kLeastEnough);
}

}  // namespace

/** What is not taken yet. */
Backlog::Amount Backlog::free() const {
    auto const rest = [](std::uint64_t most, std::uint64_t taken) {
        return most > taken ? most - taken : 0;
    };
    return {rest(static_cast<std::uint64_t>(most_.kibibytes) * kKibibyte, total_.bytes),
            rest(static_cast<std::uint64_t>(most_.messages), total_.messages)};
}

/** What one sender may have waiting now. */
Backlog::Amount Backlog::allowed() const {
    Amount const rest = free();
    return {std::min(static_cast<std::uint64_t>(most_.senderKibibytes) * kKibibyte, rest.bytes),
            std::min(static_cast<std::uint64_t>(most_.senderMessages), rest.messages)};
}

/** What a message counts of what its sender may have: no more than half of it, so that the small
 * ones behind a large one find room. */
std::uint64_t Backlog::charge(std::uint64_t bytes) const {
    return std::min(bytes, static_cast<std::uint64_t>(most_.senderKibibytes) * kKibibyte / 2);
}

/** A message may be larger than what one sender may have, as long as it leaves as much. */
bool Backlog::fits(Share const& share, std::uint64_t bytes) const {
    if (total_.messages == 0)
        return true;
    Amount const& waiting = share.load_.waiting;
    Amount const most = allowed();
    std::uint64_t const all = static_cast<std::uint64_t>(most_.kibibytes) * kKibibyte;
    bool const leavesAsMuch = total_.bytes + 2 * bytes <= all;
    bool const bytesFit =
        leavesAsMuch && (waiting.messages == 0 || waiting.bytes + charge(bytes) <= most.bytes);
    return bytesFit && waiting.messages + 1 <= most.messages && fitsProcess(share, bytes);
}

bool Backlog::fitsProcess(Share const& share, std::uint64_t bytes) const {
    Amount const& own = share.load_.waiting;
    Amount const& all = share.process_->load.waiting;
    Amount const rest = free();
    std::uint64_t const senders = share.process_->waiting + (own.messages == 0 ? 1 : 0);
    return findsRoom(own.messages, all.messages, senders, rest.messages, 1) &&
           findsRoom(own.bytes, all.bytes, senders, rest.bytes, bytes);
}

Backlog::Share* Backlog::admit(Transport::TerminationId sender, int process, std::size_t size,
                               Bounds bounds) {
    std::uint64_t const bytes = size + kHeadSize;
    Share* const share = shareOf(sender, process);
    if (!share || (bounds == Bounds::Heeded && !fits(*share, bytes)))
        return nullptr;
    enter(*share, bytes);
    return share;
}

void Backlog::enter(Share& share, std::uint64_t bytes) {
    auto const add = [](Amount& to, std::uint64_t amount) {
        to.bytes += amount;
        return ++to.messages == 1;
    };
    bool const isFirst = add(share.load_.waiting, charge(bytes));
    add(total_, bytes);
    add(share.process_->load.waiting, bytes);
    share.process_->waiting += isFirst ? 1 : 0;
}

bool Backlog::release(Share& share, std::size_t size) {
    std::uint64_t const bytes = size + kHeadSize;
    auto const take = [](Load& from, std::uint64_t amount) {
        from.waiting.bytes -= amount;
        bool const isLast = --from.waiting.messages == 0;
        if (isLast)
            from.enough = kLeastEnough;
        return isLast;
    };
    bool const isLast = take(share.load_, charge(bytes));
    take(share.process_->load, bytes);
    share.process_->waiting -= isLast ? 1 : 0;
    total_.bytes -= bytes;
    --total_.messages;
    ++served_;
    if (!share.heldBack_ || !isLittle(share))
        return false;
    letGo(share);
    return true;
}

bool Backlog::beginServing(Share& share) {
    unsigned int const free = kMostServed - beingServed_;
    unsigned int& own = share.load_.served;
    Process& process = *share.process_;
    unsigned int const senders = process.serving + (own == 0 ? 1 : 0);
    if (own >= free || !findsRoom(own, process.load.served, senders, free, 1))
        return false;
    ++process.load.served;
    process.serving = senders;
    ++own;
    ++beingServed_;
    return true;
}

void Backlog::endServing(Share& share) {
    --share.load_.served;
    --beingServed_;
    --share.process_->load.served;
    share.process_->serving -= share.load_.served == 0 ? 1 : 0;
}

Backlog::Share* Backlog::find(Transport::TerminationId sender) {
    if (last_ && lastSender_ == sender)
        return last_;
    auto const found = shares_.find(sender);
    if (found == shares_.end())
        return nullptr;
    lastSender_ = sender;
    last_ = &found->second;
    return last_;
}

Backlog::Share* Backlog::shareOf(Transport::TerminationId sender, int process) {
    if (Share* const known = find(sender))
        return known;
    forgetIdle();
    try {
        Process& owner = processes_.try_emplace(process).first->second;
        Share& made = shares_.try_emplace(sender).first->second;
        made.process_ = &owner;
        ++owner.senders;
        return &made;
    } catch (std::bad_alloc const&) {
        return nullptr;
    }
}

/** Each sender that stays costs one look for each that comes. */
void Backlog::forgetIdle() {
    if (shares_.size() < manyShares_)
        return;
    last_ = nullptr;
    for (auto entry = shares_.begin(); entry != shares_.end();) {
        Share const& share = entry->second;
        bool const idle =
            share.load_.waiting.messages == 0 && share.load_.served == 0 && !share.heldBack_;
        if (idle)
            --share.process_->senders;
        entry = idle ? shares_.erase(entry) : std::next(entry);
    }
    for (auto entry = processes_.begin(); entry != processes_.end();)
        entry = entry->second.senders == 0 ? processes_.erase(entry) : std::next(entry);
    manyShares_ = std::max<std::size_t>(64, 2 * shares_.size());
}

/** Whether a sender that is not the only one of its process has its part, or that fraction of it,
 * of what is much of a process. Who has less is not held back for what the others have sent. */
bool Backlog::hasEqualPart(Share const& share, unsigned int fraction) const {
    if (share.process_->waiting < 2)
        return false;
    Amount const& own = share.load_.waiting;
    Amount const rest = free();
    std::uint64_t const times = std::uint64_t{fraction} * share.process_->waiting;
    return own.messages * times > std::min(kLeastEnough, rest.messages / 2) ||
           own.bytes * times > rest.bytes / 2;
}

bool Backlog::isHalf(Share const& share) const {
    auto const isHalfOf = [](Amount const& waiting, Amount const& most) {
        return waiting.bytes > most.bytes / 2 || waiting.messages > most.messages / 2;
    };
    return isHalfOf(share.load_.waiting, allowed()) ||
           (hasEqualPart(share, 1) && isHalfOf(share.process_->load.waiting, free()));
}

bool Backlog::isMuch(Share& share) {
    if (isHalf(share))
        return true;
    auto const isEnough = [](Load const& load) { return load.waiting.messages > load.enough; };
    Load* const own = isEnough(share.load_) ? &share.load_ : nullptr;
    Load* const process =
        isEnough(share.process_->load) && hasEqualPart(share, 1) ? &share.process_->load : nullptr;
    if (!own && !process)
        return false;
    if (isServedSoon()) {
        setEnough(share);
        return false;
    }
    for (Load* const load : {own, process})
        if (load)
            load->enough = kLeastEnough;
    return true;
}

/** One look at the pace does for sender and process: behind it, nothing has been served yet. */
void Backlog::setEnough(Share& share) {
    Load& widest = share.process_->load;
    widest.enough = share.load_.enough = nextEnough(widest.waiting.messages);
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
    auto const isQuarter = [](Load const& load, Amount const& most) {
        return load.waiting.bytes <= most.bytes / 4 &&
               load.waiting.messages <= std::min(most.messages / 4, load.enough / 2);
    };
    return share.load_.waiting.messages == 0 ||
           (isQuarter(share.load_, allowed()) &&
            (!hasEqualPart(share, 2) || isQuarter(share.process_->load, free())));
}

bool Backlog::holdBack(Transport::TerminationId sender) {
    auto const found = shares_.find(sender);
    if (found == shares_.end() || found->second.load_.waiting.messages == 0)
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
    share.load_.enough = nextEnough(share.load_.waiting.messages);
    share.heldBack_ = false;
    --heldBack_;
}
