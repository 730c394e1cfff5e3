// Stands in front of the C library's allocator, and so of operator new, for the whole process: a
// program's own symbols come before those of its libraries.
#include "AllocationCount.h"

#include <atomic>
#include <cstddef>

#include "Slowness.h"

namespace {
std::atomic<unsigned long> allocations{0};
}

unsigned long allocationCount() {
    return allocations;
}

#ifndef REFLECTORB_TEST_SANITIZED
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
    ++allocations;
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    ++allocations;
    return __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) {
    ++allocations;
    return __libc_realloc(memory, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    ++allocations;
    return __libc_memalign(alignment, size);
}
}
#endif
