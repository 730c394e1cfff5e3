// The memory of handles. A program of its own, since it watches the heap.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <thread>
#include <vector>

#include "reflect.h"

namespace {

std::atomic<std::size_t> watchedSize{0};
std::atomic<int> watchedAllocations{0};
std::atomic<int> watchedReleases{0};
std::atomic<void*> watchedBlock{nullptr};

}  // namespace

// Not inlined, since the compiler then takes them for a mix of two heaps.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const block = std::malloc(size);
    if (!block)
        throw std::bad_alloc();
    if (size == watchedSize) {
        ++watchedAllocations;
        watchedBlock = block;
    }
    return block;
}

[[gnu::noinline]] void operator delete(void* block) noexcept {
    if (block && block == watchedBlock)
        ++watchedReleases;
    std::free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

namespace {

constexpr int kBlock = 256;
// A cell has room for three words, of which the third is the link while the cell is free.
constexpr std::size_t kCell = sizeof(TreflectObject) > 3 * sizeof(void*) ? sizeof(TreflectObject)
                                                                         : 3 * sizeof(void*);

void* take() {
    return TreflectObject::operator new(sizeof(TreflectObject));
}

/** By a way that the compiler cannot follow, since tests look at cells that are free. */
void (*const volatile release)(void*, std::size_t) = &TreflectObject::operator delete;

void giveBack(void* cell) {
    release(cell, sizeof(TreflectObject));
}

class HandlePool : public ::testing::Test {
protected:
    HandlePool() {
        cells_.reserve(10 * kBlock);
        watchedAllocations = 0;
        watchedReleases = 0;
        watchedSize = kBlock * kCell;
    }
    ~HandlePool() override {
        watchedSize = 0;
        for (void* const cell : cells_)
            giveBack(cell);
    }
    /** Takes what is left over, until the pool has just taken a new block. */
    void startBlock() {
        int const before = watchedAllocations;
        while (watchedAllocations == before)
            cells_.push_back(take());
    }

    std::vector<void*> cells_;
};

TEST_F(HandlePool, AsksTheHeapOncePer256Handles) {
    startBlock();
    auto* const first = static_cast<char*>(cells_.back());
    for (int i = 1; i < kBlock; ++i) {
        cells_.push_back(take());
        EXPECT_EQ(cells_.back(), first + static_cast<std::size_t>(i) * kCell);
    }
    EXPECT_EQ(watchedAllocations, 1);
    cells_.push_back(take());
    EXPECT_EQ(watchedAllocations, 2);
    EXPECT_EQ(std::set<void*>(cells_.begin(), cells_.end()).size(), cells_.size());
}

TEST_F(HandlePool, HandsOutTheCellThatWasFreedLast) {
    startBlock();
    void* const a = take();
    void* const b = take();
    giveBack(a);
    giveBack(b);
    giveBack(nullptr);
    EXPECT_EQ(take(), b);
    EXPECT_EQ(take(), a);

    // A free cell keeps its first two words.
    unsigned char content[2 * sizeof(void*)];
    std::memset(content, 0x5A, sizeof content);
    std::memcpy(a, content, sizeof content);
    giveBack(a);
    EXPECT_EQ(std::memcmp(a, content, sizeof content), 0);

    TreflectObject* const handle = new TreflectObject;
    EXPECT_EQ(static_cast<void*>(handle), a);
    delete handle;
    cells_.push_back(take());
    EXPECT_EQ(cells_.back(), a);
    cells_.push_back(b);
}

struct Large : TreflectObject {
    char more[5000];
};
struct Renamed : TreflectObject {};

TEST_F(HandlePool, LeavesOtherSizesToTheHeap) {
    startBlock();
    void* const next = take();
    giveBack(next);
    watchedSize = sizeof(Large);
    watchedAllocations = 0;
    TreflectObject* const large = new Large;
    EXPECT_EQ(watchedAllocations, 1);
    EXPECT_EQ(static_cast<void*>(large), watchedBlock.load());
    delete large;
    EXPECT_EQ(watchedReleases, 1);
    TreflectObject* const renamed = new Renamed;
    EXPECT_EQ(static_cast<void*>(renamed), next);
    delete renamed;
    EXPECT_EQ(watchedAllocations, 1);
    alignas(TreflectObject) unsigned char place[sizeof(TreflectObject)];
    EXPECT_EQ(TreflectObject::operator new(sizeof(TreflectObject), place), place);
    cells_.push_back(take());
    EXPECT_EQ(cells_.back(), next);
}

TEST_F(HandlePool, ServesAnyNumberOfThreads) {
    std::vector<std::thread> threads;
    for (unsigned char tag = 1; tag <= 4; ++tag)
        threads.emplace_back([tag] {
            std::vector<unsigned char*> own;
            for (int round = 0; round < 50; ++round) {
                for (int i = 0; i < 40; ++i) {
                    own.push_back(static_cast<unsigned char*>(take()));
                    std::memset(own.back(), tag, kCell);
                }
                for (unsigned char const* const cell : own)
                    for (std::size_t i = 0; i < kCell; ++i)
                        ASSERT_EQ(cell[i], tag);
                for (unsigned char* const cell : own)
                    giveBack(cell);
                own.clear();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace
