#pragma once

#include <new>

namespace OSWrap {

/**
 * For function-local static objects that are in use until the very end of the process: the object
 * is made with this one, needs no memory of the heap, not even at its first use in a destructor,
 * and is never destroyed.
 */
template <class T>
class Immortal {
public:
    Immortal() { new (room_) T; }
    Immortal(Immortal const&) = delete;
    Immortal& operator=(Immortal const&) = delete;

    /** The object, for ever. */
    T& operator*() { return *std::launder(reinterpret_cast<T*>(room_)); }

private:
    alignas(T) unsigned char room_[sizeof(T)];
};

}  // namespace OSWrap
