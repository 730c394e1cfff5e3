#pragma once

#include <atomic>

#include "handler_threads/Debugging.h"
#include "oswrap/Export.h"

/**
 * Container policy of HandlerThreads: the multiset of the threads that are in handler state, with
 * one entry per nested `add`. Every operation but `size` concerns the calling thread only.
 *
 * A thread's entries are a number in the thread's own storage, so nothing here locks or allocates.
 * There is one such number per thread, hence one container per process: only HandlerThreads makes
 * one. The number outlives all thread-specific destructors of its thread.
 */
template <class Debugging>
class REFLECTORB_API SetContainer {
public:
    SetContainer(SetContainer const&) = delete;
    SetContainer& operator=(SetContainer const&) = delete;

    /** Logs which container is in use (level 5). */
    void init(Debugging) const;
    /** Adds one entry of the calling thread. */
    void add();
    /** Removes one entry of the calling thread; no effect without one. */
    void remove();
    /** Whether the calling thread has an entry. */
    bool exist() const;
    /** Number of entries of the calling thread. */
    unsigned long count() const;
    /** Number of entries of all threads together. */
    unsigned long size() const;

private:
    template <template <class> class, template <class> class, class>
    friend class HandlerThreads;
    SetContainer() = default;

    std::atomic<unsigned long> size_{0};
};

extern template class SetContainer<Debugging_t<1>>;
