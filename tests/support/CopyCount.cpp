// Stands in front of the C library's memcpy and memmove for the whole process: a program's own
// symbols come before those of its libraries.
#include "CopyCount.h"

#include <atomic>
#include <cstddef>

#include "Slowness.h"

namespace {

std::atomic<unsigned long> copied{0};

}  // namespace

unsigned long copiedBytes() {
    return copied;
}

#ifndef REFLECTORB_TEST_SANITIZED
namespace {

constexpr std::size_t kLarge = 1024;

/** Keeps the compiler from making a loop a call of the function that it stands in. */
void stayALoop() {
    asm volatile("" ::: "memory");
}

void count(std::size_t size) {
    if (size >= kLarge)
        copied.fetch_add(static_cast<unsigned long>(size), std::memory_order_relaxed);
}

void forwards(unsigned char* to, unsigned char const* from, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i, stayALoop())
        to[i] = from[i];
}

void backwards(unsigned char* to, unsigned char const* from, std::size_t size) {
    for (std::size_t i = size; i > 0; --i, stayALoop())
        to[i - 1] = from[i - 1];
}

}  // namespace

extern "C" {
void* memcpy(void* to, void const* from, std::size_t size) noexcept {
    count(size);
    forwards(static_cast<unsigned char*>(to), static_cast<unsigned char const*>(from), size);
    return to;
}
void* memmove(void* to, void const* from, std::size_t size) noexcept {
    count(size);
    auto* const first = static_cast<unsigned char*>(to);
    auto const* const source = static_cast<unsigned char const*>(from);
    (first < source ? forwards : backwards)(first, source, size);
    return to;
}
}
#endif
