#pragma once

#include <cstdint>

namespace OSWrap {

/**
 * Things of one kind that are kept to be used again; the one that came last goes first. They are
 * linked by a pointer of their own, which means nothing while they are in use. Plain data without a
 * destructor; no memory, no errors, no lock: whoever shares a list guards it.
 */
template <class T, T* T::*Next>
class FreeList {
public:
    /** One that is in no list. */
    void push(T* one) {
        one->*Next = first_;
        first_ = one;
        ++count_;
    }
    /** Null when there is none. */
    T* pop() {
        T* const one = first_;
        if (one != nullptr) {
            first_ = one->*Next;
            --count_;
        }
        return one;
    }
    /** How many there are in the list. */
    std::uint32_t count() const { return count_; }

private:
    T* first_ = nullptr;
    std::uint32_t count_ = 0;
};

}  // namespace OSWrap
