#pragma once

#include <tuple>
#include <type_traits>

class TipprmiStream;

/**
 * Gives a struct its stream operators: one line in it that names the struct and lists its members,
 * in the order in which they travel.
 *
 *     struct Limits {
 *         unsigned int highest = 0;
 *         std::vector<double> steps;
 *         REFLECTORB_STRUCT(Limits, highest, steps)
 *     };
 *
 * Wire form: the encodings of the members, one after the other. The members are of types that
 * have operators; the struct stays an aggregate. A struct derived from it needs a line of its own,
 * with all members.
 *
 * Without the macro, a struct may have what the line stands for: the type `TipprmiStruct`, two
 * functions `tipprmiMembers` and the text `tipprmiText`; or operators of its own.
 */
#define REFLECTORB_STRUCT(Name, ...)             \
    using TipprmiStruct = Name;                  \
    auto tipprmiMembers() {                      \
        return std::tie(__VA_ARGS__);            \
    }                                            \
    auto tipprmiMembers() const {                \
        return std::tie(__VA_ARGS__);            \
    }                                            \
    static constexpr char const* tipprmiText() { \
        return #Name "{" #__VA_ARGS__ "}";       \
    }

namespace tipprmi {

template <class T, class = void>
struct IsStruct : std::false_type {};
template <class T>
struct IsStruct<T, std::void_t<typename T::TipprmiStruct>>
    : std::is_same<typename T::TipprmiStruct, T> {};
/** Whether a type lists its members. */
template <class T>
inline constexpr bool isStruct = IsStruct<T>::value;

}  // namespace tipprmi

template <class T, std::enable_if_t<tipprmi::isStruct<T>, int> = 0>
TipprmiStream& operator<<(TipprmiStream& stream, T const& value) {
    return stream << value.tipprmiMembers();
}

template <class T, std::enable_if_t<tipprmi::isStruct<T>, int> = 0>
TipprmiStream& operator>>(TipprmiStream& stream, T& value) {
    std::apply([&](auto&... member) -> void { static_cast<void>((stream >> ... >> member)); },
               value.tipprmiMembers());
    return stream;
}

// Its containers know of structs, so it comes behind them.
#include "ipprmi/TipprmiStream.h"
