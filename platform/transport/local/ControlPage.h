#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Transport {

/**
 * Everything that one side of a channel tells the other in shared memory. Lies at the start of the
 * memory file of that side, which only that side can write. Each word has a cache line of its own.
 *
 * | offset | width | word | meaning |
 * |---|---|---|---|
 * | 0 | 4 | tail | bytes that the owner has put into its ring since the start, modulo 2^32 |
 * | 64 | 4 | head | bytes of the peer's ring that the peer need not keep any more, likewise: what the
 * owner has taken out, or, where he passes it on, what of that has arrived |
 * | 128 | 4 | asleep | 0: the owner looks at the ring by itself; else ring its bell once after each
 * change of this word |
 * | 192 | 4 | wantsSpace | changes when the owner wants its bell rung after `head` has moved, as soon
 * as half of the ring is free |
 *
 * All words are written and read with sequentially consistent operations wherever the two sides
 * could otherwise miss each other: "store tail, then read asleep" against "store asleep, then read
 * tail", and the same with head and wantsSpace.
 */
struct ControlPage {
    alignas(64) std::atomic<std::uint32_t> tail;
    alignas(64) std::atomic<std::uint32_t> head;
    alignas(64) std::atomic<std::uint32_t> asleep;
    alignas(64) std::atomic<std::uint32_t> wantsSpace;
};
static_assert(sizeof(ControlPage) == 256 && offsetof(ControlPage, head) == 64 &&
                  offsetof(ControlPage, asleep) == 128 && offsetof(ControlPage, wantsSpace) == 192,
              "shared by processes of any word size");
static_assert(sizeof(std::atomic<std::uint32_t>) == 4 &&
                  std::atomic<std::uint32_t>::is_always_lock_free,
              "lies in memory that two processes share");

/** Whether position `a` of a ring comes before `b`; they are never 2^31 bytes apart. */
constexpr bool isBefore(std::uint32_t a, std::uint32_t b) {
    return static_cast<std::int32_t>(a - b) < 0;
}

}  // namespace Transport
