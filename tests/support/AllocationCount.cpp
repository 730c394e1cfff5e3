// Stands in front of the C library's allocator, and so of operator new, for the whole process: a
// program's own symbols come before those of its libraries. Under sanitizers it stands in front of
// operator new alone.
#include "AllocationCount.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "Slowness.h"

namespace {

std::atomic<unsigned long> allocations{0};
std::atomic<long> untilFirst{0};  // 0: nothing fails
std::atomic<long> untilLast{0};
std::atomic<bool> reached{false};
thread_local bool sated = false;

/** Counts an allocation; whether it may succeed. */
bool granted() {
    ++allocations;
    if (sated || untilLast.load() <= 0)
        return true;
    long const left = untilFirst.fetch_sub(1);
    long const last = untilLast.fetch_sub(1);
    if (left > 1 || last < 1)
        return true;
    reached = true;
    errno = ENOMEM;
    return false;
}

}  // namespace

unsigned long allocationCount() {
    return allocations;
}

void starve(unsigned long nth, unsigned long more) {
    reached = false;
    untilFirst = static_cast<long>(nth);
    untilLast = static_cast<long>(nth + more);
}

bool feed() {
    untilLast = 0;
    return reached;
}

Sated::Sated(bool now) : before_(sated) {
    sated = now;
}

Sated::~Sated() {
    sated = before_;
}

#ifndef REFLECTORB_TEST_SANITIZED
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
    return granted() ? __libc_malloc(size) : nullptr;
}
void* calloc(std::size_t count, std::size_t size) {
    return granted() ? __libc_calloc(count, size) : nullptr;
}
void* realloc(void* memory, std::size_t size) {
    return granted() ? __libc_realloc(memory, size) : nullptr;
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return granted() ? __libc_memalign(alignment, size) : nullptr;
}
}
#else
void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    return granted() ? std::malloc(size) : nullptr;
}
void* operator new(std::size_t size) {
    if (void* const memory = operator new(size, std::nothrow))
        return memory;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new[](std::size_t size, std::nothrow_t const& nothrow) noexcept {
    return operator new(size, nothrow);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::nothrow_t const&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
#endif
