// What becomes of each message that couriers send each other: they note it in a file that is memory
// to them, so that nothing of it is lost when they are killed.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

namespace soak {

/** A courier from its start to its end: its place in the run, and how often that was filled. */
using CourierLife = std::uint32_t;

/** Of all couriers; brokers, which ask each other in group 3, are not to ask them. */
constexpr unsigned char kCourierGroup = 5;
constexpr std::uint32_t kLargestParcel = 2u << 20;

/** The head of a message; bytes that depend on the number fill the rest. */
struct Parcel {
    CourierLife author;
    std::uint32_t number;  // counted by its author, whoever gets it

    unsigned char byteAt(std::size_t position) const {
        return static_cast<unsigned char>(number * 31 + position);
    }
};

struct Entry {
    enum Kind : std::uint32_t {
        None,     // its writer was killed before it was there
        Tried,    // is about to be sent
        Taken,    // has been accepted
        Refused,  // has not
        Came,
        Back,
        Damaged,
    };
    Kind kind;
    std::uint32_t destination;  // of what was tried: a termination
    CourierLife author;
    std::uint32_t number;
    std::uint32_t bytes;  // of what was tried
    double at;            // seconds, as in the course of the soak and in logs
};

inline double secondsNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/** The entries of one courier. A resource. */
class Journal {
public:
    static constexpr std::uint64_t kMostEntries = 1 << 21;

    explicit Journal(std::string const& path) : file_(open(path.c_str(), O_RDWR | O_CREAT, 0600)) {
        void* const memory =
            file_ >= 0 && ftruncate(file_, sizeof(Pages)) == 0
                ? mmap(nullptr, sizeof(Pages), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0)
                : MAP_FAILED;
        if (memory == MAP_FAILED)
            throw std::system_error(errno, std::generic_category(), path);
        pages_ = static_cast<Pages*>(memory);
    }
    ~Journal() {
        munmap(pages_, sizeof(Pages));
        close(file_);
    }
    Journal(Journal const&) = delete;
    Journal& operator=(Journal const&) = delete;

    /** Any thread. */
    void note(Entry const& entry) {
        std::uint64_t const place = pages_->count++;
        if (place >= kMostEntries)
            return;
        Entry& at = pages_->entries[place];
        at.destination = entry.destination;
        at.author = entry.author;
        at.number = entry.number;
        at.bytes = entry.bytes;
        at.at = secondsNow();
        std::atomic_thread_fence(std::memory_order_release);
        *const_cast<Entry::Kind volatile*>(&at.kind) = entry.kind;
    }
    std::uint64_t count() const { return std::min(pages_->count.load(), kMostEntries); }
    bool isFull() const { return pages_->count >= kMostEntries; }
    Entry const& operator[](std::uint64_t place) const { return pages_->entries[place]; }
    /** Whether its writer is done with it. */
    bool isThere(std::uint64_t place) const {
        bool const there =
            *const_cast<Entry::Kind const volatile*>(&pages_->entries[place].kind) != Entry::None;
        std::atomic_thread_fence(std::memory_order_acquire);
        return there;
    }
    /** Forgets all; while nobody notes anything. */
    void clear() {
        std::fill_n(pages_->entries, count(), Entry{});
        pages_->count = 0;
    }

private:
    struct Pages {
        std::atomic<std::uint64_t> count;
        Entry entries[kMostEntries];
    };

    int const file_;
    Pages* pages_ = nullptr;
};

/** What is known of a courier when its messages are judged. */
struct Courier {
    int machine = 0;
    bool died = false;  // in this stretch
};

/** The messages of a stretch, put together of all journals. */
class Ledger {
public:
    /** A courier has come to be, at a termination. */
    void born(CourierLife life, std::uint32_t termination, int machine) {
        couriers_[life].machine = machine;
        atTermination_[termination] = life;
    }
    void died(CourierLife life) { couriers_[life].died = true; }
    /** That machines have had no link to each other for a while. */
    void parted(int one, int other) {
        partings_.insert({std::min(one, other), std::max(one, other)});
    }

    /** Of the journal of a courier, in its order. */
    void take(CourierLife owner, Entry const& entry) {
        Message& message = messages_[std::uint64_t{entry.author} << 32 | entry.number];
        switch (entry.kind) {
            case Entry::Tried:
                message.destination = lifeAt(entry.destination);
                message.bytes = entry.bytes;
                message.at = entry.at;
                message.tried = true;
                break;
            case Entry::Taken:
                message.taken = true;
                break;
            case Entry::Refused:
                message.refused = true;
                break;
            case Entry::Came:
                ++message.came;
                inOrder(owner, entry);
                break;
            case Entry::Back:
                ++message.back;
                break;
            case Entry::Damaged:
                faults_.push_back(textOf(entry.author, entry.number) + " is damaged");
                break;
            case Entry::None:
                break;
        }
    }

    /** How many messages of those that live have not been accounted for yet. */
    std::size_t unsettled() const {
        std::size_t count = 0;
        for (auto const& [key, message] : messages_)
            count += isMissing(message) && !mayBeMissing(authorOf(key), message);
        return count;
    }
    struct Tally {
        unsigned long taken = 0, refused = 0, came = 0, back = 0, both = 0;
        unsigned long withCouriers = 0;  // that were killed
    };
    Tally const& tally() const { return tally_; }
    /** Adds what is wrong with this stretch, which has come to rest, and begins the next. */
    std::vector<std::string> judge() {
        for (auto const& [key, message] : messages_)
            judge(authorOf(key), static_cast<std::uint32_t>(key), message);
        for (Disorder const& one : std::exchange(disorders_, {}))
            if (!wereParted(one.reader, one.author))
                faults_.push_back(textOf(one.author, one.number) + " came behind " +
                                  std::to_string(one.last) + " at courier " + nameOf(one.reader));
        messages_.clear();
        partings_.clear();
        for (auto at = couriers_.begin(); at != couriers_.end();)
            at = at->second.died ? couriers_.erase(at) : std::next(at);
        return std::exchange(faults_, {});
    }

private:
    struct Message {
        CourierLife destination = 0;
        std::uint32_t bytes = 0;
        double at = 0;
        bool tried = false, taken = false, refused = false;
        unsigned char came = 0, back = 0;
    };

    static CourierLife authorOf(std::uint64_t key) { return static_cast<CourierLife>(key >> 32); }
    static std::string textOf(CourierLife author, std::uint32_t number) {
        return "message " + std::to_string(number) + " of courier " + nameOf(author);
    }
    static std::string nameOf(CourierLife life) {
        return std::to_string(life >> 16) + "." + std::to_string(life & 0xFFFF);
    }
    CourierLife lifeAt(std::uint32_t termination) const {
        auto const found = atTermination_.find(termination);
        return found == atTermination_.end() ? 0 : found->second;
    }
    bool hasDied(CourierLife life) const {
        auto const found = couriers_.find(life);
        return found == couriers_.end() || found->second.died;
    }
    bool wereParted(CourierLife one, CourierLife other) const {
        auto const a = couriers_.find(one), b = couriers_.find(other);
        if (a == couriers_.end() || b == couriers_.end())
            return true;
        int const first = a->second.machine, second = b->second.machine;
        return partings_.count({std::min(first, second), std::max(first, second)}) > 0;
    }
    static bool isMissing(Message const& message) {
        return message.taken && message.came + message.back == 0;
    }
    /** Nobody tells of what one has read who was killed, nor gives it back to one who was. */
    bool mayBeMissing(CourierLife author, Message const& message) const {
        return hasDied(author) || hasDied(message.destination);
    }
    void inOrder(CourierLife reader, Entry const& entry) {
        std::uint32_t& last = last_[std::uint64_t{reader} << 32 | entry.author];
        if (entry.number <= last)
            disorders_.push_back({reader, entry.author, entry.number, last});
        last = entry.number;
    }

    void judge(CourierLife author, std::uint32_t number, Message const& message) {
        auto const fault = [&](char const* what) {
            faults_.push_back(textOf(author, number) + ", " + std::to_string(message.bytes) +
                              " bytes, sent at " + std::to_string(message.at) + " to courier " +
                              nameOf(message.destination) + ", " + what);
        };
        bool const excused = wereParted(author, message.destination) ||
                             hasDied(message.destination) || hasDied(author);
        tally_.taken += message.taken;
        tally_.refused += message.refused;
        tally_.came += message.came > 0;
        tally_.back += message.back > 0;
        tally_.both += message.came > 0 && message.back > 0;
        if (message.came > 1 || message.back > 1)
            fault("came or came back twice");
        if (!message.tried)
            fault("was never sent, or in a stretch that is over");
        else if (message.refused && message.came + message.back > 0)
            fault("was refused and came, or came back");
        else if (isMissing(message) && !mayBeMissing(author, message))
            fault("is lost");
        else if (message.back > 0 && !excused)
            fault(message.came > 0 ? "came and came back, though nothing had happened"
                                   : "came back, though nothing had happened");
        tally_.withCouriers += isMissing(message) && mayBeMissing(author, message);
    }

    /** What was sent before a parting may come behind what was sent after it. */
    struct Disorder {
        CourierLife reader, author;
        std::uint32_t number, last;
    };

    std::map<CourierLife, Courier> couriers_;
    std::map<std::uint32_t, CourierLife> atTermination_;
    std::set<std::pair<int, int>> partings_;
    std::unordered_map<std::uint64_t, Message> messages_;
    std::unordered_map<std::uint64_t, std::uint32_t> last_;  // number, by reader and author
    std::vector<Disorder> disorders_;
    std::vector<std::string> faults_;
    Tally tally_;
};

}  // namespace soak
