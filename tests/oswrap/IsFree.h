#pragma once

#include <thread>

/** Whether another thread could lock this now. */
template <class Lockable>
bool isFree(Lockable& lockable) {
    bool result = false;
    std::thread([&] {
        if (!lockable.trylock())
            return;
        lockable.unlock();
        result = true;
    }).join();
    return result;
}
