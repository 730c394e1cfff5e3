// The pool behind operator new and delete of TreflectMessage: a response is allocated by the
// receiving thread and freed by the thread that waited for it, call after call.
#include "oswrap/FreeList.h"
#include "oswrap/Immortal.h"
#include "oswrap/Lock.h"
#include "reflect/TreflectMessage.h"

namespace {

/** Keeps freed cells in a chain, as many as calls are likely to be under way at once. */
class CellPool {
public:
    /** Never destroyed: messages are freed up to the very end of the process. */
    static CellPool& instance() {
        static OSWrap::Immortal<CellPool> pool;
        return *pool;
    }

    /** A kept cell, or null. */
    void* take() {
        OSWrap::Lock<> const lock(mutex_);
        return free_.pop();
    }

    /** Whether the cell is kept; else it stays the caller's. */
    bool give(void* memory) {
        OSWrap::Lock<> const lock(mutex_);
        if (free_.count() == kMostKept)
            return false;
        free_.push(new (memory) Cell);
        return true;
    }

private:
    struct Cell {
        Cell* next = nullptr;
    };
    static_assert(sizeof(Cell) <= sizeof(TreflectMessage), "a cell must hold its link");
    static constexpr unsigned int kMostKept = 512;

    OSWrap::Mutex mutex_;  // a leaf: no other lock is taken while it is held
    OSWrap::FreeList<Cell, &Cell::next> free_ OSW_GUARDED_BY(mutex_);
};

}  // namespace

void* TreflectMessage::operator new(std::size_t size) {
    void* const cell = CellPool::instance().take();
    return cell ? cell : ::operator new(size);
}

void* TreflectMessage::operator new(std::size_t size, std::nothrow_t const& nothrow) noexcept {
    void* const cell = CellPool::instance().take();
    return cell ? cell : ::operator new(size, nothrow);
}

void TreflectMessage::operator delete(void* memory) noexcept {
    if (memory && !CellPool::instance().give(memory))
        ::operator delete(memory);
}

void TreflectMessage::operator delete(void* memory, std::nothrow_t const&) noexcept {
    operator delete(memory);
}
