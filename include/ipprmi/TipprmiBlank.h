#pragma once

#include <tuple>
#include <type_traits>

/**
 * The value that is there before one is read from a stream, and that a failed call yields: a
 * default-constructed one. TipprmiOID, which has no default constructor, has one of its own.
 */
template <class T>
T tipprmiBlank() {
    return T{};
}

/** Several of them. */
template <class... T>
std::tuple<T...> tipprmiBlanks() {
    if constexpr ((std::is_default_constructible_v<T> && ...))
        return {};
    else
        return std::tuple<T...>(tipprmiBlank<T>()...);
}
