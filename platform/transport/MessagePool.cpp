#include "platform/transport/MessagePool.h"

#include <pthread.h>

#include <algorithm>
#include <new>

#include "oswrap/FreeList.h"
#include "oswrap/Immortal.h"
#include "oswrap/Lock.h"
#include "oswrap/Mutex.h"
#include "platform/oswrap/QuickThreadLocal.h"
#include "platform/transport/local/Fork.h"

#if defined(__SANITIZE_ADDRESS__)
#define TRANSPORT_POOL_POISON 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TRANSPORT_POOL_POISON 1
#endif
#endif

#ifdef TRANSPORT_POOL_POISON
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#endif

namespace Transport {
namespace {

constexpr std::uint32_t kSmallestShift = 7;  // 128 bytes, head included
constexpr std::uint32_t kClasses = 13;       // up to 512 KiB
constexpr std::uint32_t kFromHeap = kClasses;
constexpr std::size_t kThreadBytesPerClass = 64 * 1024;
constexpr std::size_t kCommonBytesPerClass = 2 * 1024 * 1024;
constexpr std::size_t kCommonBytes = 8 * 1024 * 1024;

constexpr std::size_t blockBytes(std::uint32_t sizeClass) {
    return std::size_t{1} << (kSmallestShift + sizeClass);
}

/** How many blocks of a class a thread keeps; none of the largest ones, since there may be many
 * threads. */
constexpr std::uint32_t mostOfThread(std::uint32_t sizeClass) {
    return static_cast<std::uint32_t>(
        std::min<std::size_t>(64, kThreadBytesPerClass / blockBytes(sizeClass)));
}

/** How many blocks of a class move between a thread and the common store at a time. */
constexpr std::uint32_t handful(std::uint32_t sizeClass) {
    return std::max(mostOfThread(sizeClass) / 2, 1u);
}

std::uint32_t classFor(std::size_t bytes) {
    std::uint32_t sizeClass = 0;
    while (sizeClass < kClasses && blockBytes(sizeClass) < bytes)
        ++sizeClass;
    return sizeClass;
}

using FreeBlocks = OSWrap::FreeList<MessageBlock, &MessageBlock::next>;

std::atomic<unsigned long> heapAllocationCount{0};

MessageBlock* fromHeap(std::size_t bytes, std::uint32_t sizeClass) {
    void* memory = ::operator new(bytes, std::nothrow);
    if (memory == nullptr)
        return nullptr;
    heapAllocationCount.fetch_add(1, std::memory_order_relaxed);
    auto* block = new (memory) MessageBlock;
    block->capacity = static_cast<std::uint32_t>(bytes - sizeof(MessageBlock));
    block->sizeClass = static_cast<std::uint16_t>(sizeClass);
    return block;
}

void toHeap(MessageBlock* block) {
    ASAN_UNPOISON_MEMORY_REGION(block->data(), block->capacity);
    block->~MessageBlock();
    ::operator delete(block);
}

/** What threads have too many of. A forked child passes it by, since its mutex may be held there by
 * nobody. */
class CommonStore {
public:
    /** Moves up to a handful of blocks to `list`. */
    void refill(FreeBlocks& list, std::uint32_t sizeClass) {
        if (inForkedChild())
            return;
        OSWrap::Lock<> lock(mutex_);
        FreeBlocks& common = lists_[sizeClass];
        for (std::uint32_t n = handful(sizeClass); n > 0 && common.count() > 0; --n) {
            list.push(common.pop());
            bytes_ -= blockBytes(sizeClass);
        }
    }

    /** Takes `count` blocks of `list`; what exceeds the bound goes back to the heap. */
    void accept(FreeBlocks& list, std::uint32_t sizeClass, std::uint32_t count) {
        FreeBlocks surplus;
        if (inForkedChild()) {
            for (; count > 0 && list.count() > 0; --count)
                surplus.push(list.pop());
        } else {
            OSWrap::Lock<> lock(mutex_);
            for (; count > 0 && list.count() > 0; --count)
                (makeRoom(sizeClass) ? lists_[sizeClass] : surplus).push(list.pop());
        }
        while (MessageBlock* block = surplus.pop())
            toHeap(block);
    }

    std::size_t bytes() {
        OSWrap::Lock<> lock(mutex_);
        return bytes_;
    }

private:
    /** For one more of a class; false when there are enough. */
    bool makeRoom(std::uint32_t sizeClass) OSW_REQUIRES(mutex_) {
        std::size_t const size = blockBytes(sizeClass);
        if ((lists_[sizeClass].count() + 1) * size > kCommonBytesPerClass ||
            bytes_ + size > kCommonBytes)
            return false;
        bytes_ += size;
        return true;
    }

    OSWrap::Mutex mutex_;  // a leaf: nothing is locked under it
    FreeBlocks lists_[kClasses] OSW_GUARDED_BY(mutex_);
    std::size_t bytes_ OSW_GUARDED_BY(mutex_) = 0;  // of all lists
};

/** Never destroyed: messages may be freed late in the process's end. */
CommonStore& commonStore() {
    static OSWrap::Immortal<CommonStore> store;
    return *store;
}

/** Plain data, so that it can be used until the thread's very end, whichever destructor of
 * thread-specific data runs first. */
struct ThreadCache {
    enum class State { Fresh, InUse, Ended };
    FreeBlocks lists[kClasses];
    State state;
};

OSW_QUICK_THREAD_LOCAL ThreadCache threadCache{};

void giveBackThreadCache(void* cachePointer) {
    auto& cache = *static_cast<ThreadCache*>(cachePointer);
    cache.state = ThreadCache::State::Ended;
    if (inForkedChild())
        return;
    for (std::uint32_t i = 0; i < kClasses; ++i)
        commonStore().accept(cache.lists[i], i, cache.lists[i].count());
}

/** Has the cache given back at the end of the calling thread; false when the process has used up
 * its keys or its memory. */
bool watchThreadEnd(ThreadCache& cache) {
    static pthread_key_t key{};
    static bool const made = pthread_key_create(&key, giveBackThreadCache) == 0;
    return made && pthread_setspecific(key, &cache) == 0;
}

/** The calling thread's cache; null when the thread is ending or its end cannot be watched. */
ThreadCache* cacheOfThread() {
    ThreadCache& cache = threadCache;
    if (cache.state == ThreadCache::State::InUse)
        return &cache;
    if (cache.state == ThreadCache::State::Ended)
        return nullptr;
    bool const watched = watchThreadEnd(cache);
    cache.state = watched ? ThreadCache::State::InUse : ThreadCache::State::Ended;
    return watched ? &cache : nullptr;
}

MessageBlock* takePooled(std::uint32_t sizeClass) {
    ThreadCache* cache = cacheOfThread();
    FreeBlocks none;
    FreeBlocks& list = cache != nullptr ? cache->lists[sizeClass] : none;
    if (cache != nullptr && list.count() == 0)
        commonStore().refill(list, sizeClass);
    return list.pop();
}

}  // namespace

MessageBlock* MessagePool::take(std::size_t capacity) {
    std::size_t const bytes = capacity + sizeof(MessageBlock);
    std::uint32_t const sizeClass = classFor(bytes);
    if (sizeClass == kFromHeap)
        return fromHeap(bytes, kFromHeap);
    MessageBlock* block = takePooled(sizeClass);
    if (block == nullptr)
        return fromHeap(blockBytes(sizeClass), sizeClass);
    ASAN_UNPOISON_MEMORY_REGION(block->data(), block->capacity);
    block->next = nullptr;
    block->references.store(1, std::memory_order_relaxed);
    block->size = 0;
    block->originator = 0;
    block->destination = 0;
    block->marks = 0;
    block->endInRing = MessageBlock::kNotInRing;
    return block;
}

void MessagePool::give(MessageBlock* block) {
    std::uint32_t const sizeClass = block->sizeClass;
    if (sizeClass == kFromHeap) {
        toHeap(block);
        return;
    }
    ASAN_POISON_MEMORY_REGION(block->data(), block->capacity);
    ThreadCache* cache = cacheOfThread();
    if (cache == nullptr) {
        FreeBlocks one;
        one.push(block);
        commonStore().accept(one, sizeClass, 1);
        return;
    }
    FreeBlocks& list = cache->lists[sizeClass];
    list.push(block);
    if (list.count() > mostOfThread(sizeClass))
        commonStore().accept(list, sizeClass, handful(sizeClass));
}

unsigned long MessagePool::heapAllocations() {
    return heapAllocationCount.load(std::memory_order_relaxed);
}

std::size_t MessagePool::commonBytes() {
    return commonStore().bytes();
}

}  // namespace Transport
