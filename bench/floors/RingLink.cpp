#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

#include "floors/Link.h"
#include "floors/Sockets.h"
#include "floors/Wait.h"

namespace bench {

namespace {

constexpr std::uint64_t kRingSize = 1024 * 1024;

/** One direction in shared memory: bytes from one producer process to one consumer thread. */
struct Ring {
    alignas(64) std::atomic<std::uint64_t> head;  // consumer: bytes taken
    alignas(64) std::atomic<std::uint64_t> tail;  // producer: bytes given
    alignas(64) std::atomic<std::uint32_t> sleeping;
    std::atomic<std::uint32_t> closed;
    alignas(64) unsigned char bytes[kRingSize];
};

void futexWait(std::atomic<std::uint32_t>& word, std::uint32_t value) {
    syscall(SYS_futex, &word, FUTEX_WAIT, value, nullptr, nullptr, 0);
}

void futexWake(std::atomic<std::uint32_t>& word) {
    syscall(SYS_futex, &word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

void copyIn(Ring& ring, std::uint64_t at, void const* source, std::size_t size) {
    std::size_t const start = at % kRingSize;
    std::size_t const first = std::min<std::size_t>(size, kRingSize - start);
    std::memcpy(ring.bytes + start, source, first);
    std::memcpy(ring.bytes, static_cast<unsigned char const*>(source) + first, size - first);
}

void copyOut(Ring const& ring, std::uint64_t at, void* target, std::size_t size) {
    std::size_t const start = at % kRingSize;
    std::size_t const first = std::min<std::size_t>(size, kRingSize - start);
    std::memcpy(target, ring.bytes + start, first);
    std::memcpy(static_cast<unsigned char*>(target) + first, ring.bytes, size - first);
}

class RingLink : public Link {
public:
    RingLink(Ring* in, Ring* out, Waiting waiting) : in_(*in), out_(*out), waiting_(waiting) {}

    void send(FloorMessage const& head, unsigned char const* body) override {
        std::size_t const size = sizeof head + head.bodySize;
        {
            std::lock_guard<std::mutex> lock(sendMutex_);
            std::uint64_t const tail = out_.tail.load(std::memory_order_relaxed);
            while (tail + size - out_.head.load(std::memory_order_acquire) > kRingSize)
                sched_yield();
            copyIn(out_, tail, &head, sizeof head);
            if (head.bodySize > 0)
                copyIn(out_, tail + sizeof head, body, head.bodySize);
            out_.tail.store(tail + size, std::memory_order_seq_cst);
        }
        if (out_.sleeping.load(std::memory_order_seq_cst) != 0 && out_.sleeping.exchange(0) != 0)
            futexWake(out_.sleeping);
    }

    bool receive(FloorMessage& head, std::vector<unsigned char>& body) override {
        if (!waitForBytes())
            return false;
        std::uint64_t const at = in_.head.load(std::memory_order_relaxed);
        copyOut(in_, at, &head, sizeof head);
        body.resize(head.bodySize);
        if (head.bodySize > 0)
            copyOut(in_, at + sizeof head, body.data(), head.bodySize);
        in_.head.store(at + sizeof head + head.bodySize, std::memory_order_release);
        return true;
    }

    void close() override {
        for (Ring* ring : {&in_, &out_}) {
            ring->closed = 1;
            ring->sleeping = 0;
            futexWake(ring->sleeping);
        }
    }

private:
    bool hasBytes() const {
        return in_.tail.load(std::memory_order_seq_cst) != in_.head.load(std::memory_order_relaxed);
    }

    bool waitForBytes() {
        while (!hasBytes()) {
            if (in_.closed != 0)
                return false;
            if (pollBriefly(waiting_, [this] { return hasBytes(); }))
                return true;
            in_.sleeping.store(1, std::memory_order_seq_cst);
            if (!hasBytes() && in_.closed == 0)
                futexWait(in_.sleeping, 1);
            in_.sleeping.store(0, std::memory_order_seq_cst);
        }
        return true;
    }

    Ring& in_;
    Ring& out_;
    Waiting const waiting_;
    std::mutex sendMutex_;  // guards the tail of out_
};

/** Both rings in a file of the folder, which the server makes and the client opens. */
Ring* mapRings(std::string const& folder, std::uint32_t number, int flags) {
    std::string const path = folder + "/rings" + std::to_string(number);
    int const file = open(path.c_str(), O_RDWR | O_CLOEXEC | flags, 0600);
    if (file < 0 || ((flags & O_CREAT) != 0 && ftruncate(file, 2 * sizeof(Ring)) < 0))
        die("rings");
    void* const memory =
        mmap(nullptr, 2 * sizeof(Ring), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (memory == MAP_FAILED)
        die("mmap");
    return static_cast<Ring*>(memory);
}

}  // namespace

std::unique_ptr<Link> acceptRingLink(std::string const& folder) {
    Ring* const rings = mapRings(folder, 0, O_CREAT | O_TRUNC);
    close(acceptSocket(folder));
    return std::make_unique<RingLink>(&rings[0], &rings[1], Waiting::kPoll);
}

std::unique_ptr<Link> connectRingLink(std::string const& folder) {
    close(connectSocket(folder));
    Ring* const rings = mapRings(folder, 0, 0);
    return std::make_unique<RingLink>(&rings[1], &rings[0], Waiting::kPoll);
}

std::unique_ptr<Link> makeSleepingRing(std::string const& folder, std::uint32_t number) {
    Ring* const rings = mapRings(folder, number, O_CREAT | O_TRUNC);
    return std::make_unique<RingLink>(&rings[0], &rings[1], Waiting::kSleep);
}

std::unique_ptr<Link> openSleepingRing(std::string const& folder, std::uint32_t number) {
    Ring* const rings = mapRings(folder, number, 0);
    return std::make_unique<RingLink>(&rings[1], &rings[0], Waiting::kSleep);
}

}  // namespace bench
