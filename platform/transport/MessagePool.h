#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Transport {

/** What is to be known of a message on its way, besides its bytes. A copy has none of them. */
enum class MessageMark : std::uint8_t {
    SentAgain = 1,    // it came back once: should it do so once more, that is the end of it
    ReachedRing = 2,  // it comes back, and its receiver could have taken it
    SentBack = 4,     // it goes back to who has sent it, as undeliverable
};

/**
 * Head of a message buffer; the bytes follow it. A block belongs to its counted references, or to
 * the pool while it has none.
 */
struct alignas(16) MessageBlock {
    MessageBlock* next = nullptr;  // link of the one list (queue or pool) that the block is in
    std::atomic<std::uint32_t> references{1};
    std::uint32_t size = 0;
    std::uint32_t capacity = 0;  // bytes of room behind the head
    std::uint32_t originator = 0;
    std::uint32_t destination = 0;
    std::uint16_t sizeClass = 0;
    std::uint8_t marks = 0;  // a set of MessageMark
    /** Where it ends in a ring: while a RingWriter keeps it, and after it has come out of one. */
    std::uint32_t endInRing = kNotInRing;

    static constexpr std::uint32_t kNotInRing = 1;  // where none ends: at multiples of 8

    bool has(MessageMark mark) const { return (marks & static_cast<std::uint8_t>(mark)) != 0; }
    unsigned char* data() { return reinterpret_cast<unsigned char*>(this + 1); }
    unsigned char const* data() const { return reinterpret_cast<unsigned char const*>(this + 1); }
};

/**
 * Where message blocks come from and go back to. Blocks have sizes by class (powers of two). Each
 * thread keeps a few of each class for itself; what one thread has too many of goes, a handful at a
 * time, to a common store from which threads that run short take a handful. So a thread that only
 * allocates and one that only frees feed each other without the heap. Threads give everything back
 * when they end. What is kept is bounded: half a mebibyte for each thread, which keeps no block of
 * 128 KiB or more, and 8 MiB in the common store. Blocks beyond the largest class come straight
 * from the heap. Any thread, also while its thread-specific data are being destroyed.
 */
class MessagePool {
public:
    /** A block with one reference, size 0 and room for at least `capacity` bytes of unknown
     * content; null when memory has run out. */
    static MessageBlock* take(std::size_t capacity);
    /** Takes back a block without references. */
    static void give(MessageBlock* block);

    /** Blocks that were taken from the heap since the start of the process. */
    static unsigned long heapAllocations();
    /** Bytes that the common store holds now. */
    static std::size_t commonBytes();
};

}  // namespace Transport
