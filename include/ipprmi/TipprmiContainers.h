#pragma once

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "ipprmi/TipprmiBlank.h"
#include "ipprmi/TipprmiScalar.h"
#include "ipprmi/TipprmiStream.h"
#include "ipprmi/TipprmiStruct.h"

/**
 * The encodings of what holds other values. Whatever can be written and read itself may stand in
 * it.
 *
 * | type | written |
 * |---|---|
 * | std::vector<T> | unsigned int count, the elements |
 * | std::vector<std::uint8_t>, TipprmiByteView | as a string: int length, the bytes |
 * | std::wstring | unsigned int count, the characters with 4 bytes each |
 * | std::array<T, N> | the N elements, without a count |
 * | std::map<K, V> | unsigned int count, then key and value of each, in the order of the keys |
 * | std::optional<T> | unsigned int 0; or 1 and the value |
 * | std::variant<T...> | unsigned int index of the alternative, its value |
 * | std::monostate | nothing |
 * | std::pair, std::tuple | the members |
 *
 * A reader trusts nothing: a count must fit into what is left of the message before room is made,
 * the index of an alternative must exist, an optional holds at most one value, and values may stand
 * within each other only so deep (see TipprmiStream::kMaxNesting). Otherwise the read fails, and
 * the container is empty. Of equal keys the last counts. Many numbers at a time travel as fast as
 * memory allows.
 */
namespace tipprmi {

/** The number of bytes that a value has at least in a stream; 4 for types with operators of their
 * own. A count is believed only as far as what is left could hold so many. */
template <class T>
struct LeastSize;
/** The number of LeastSize. */
template <class T>
inline constexpr std::size_t kLeastSize = LeastSize<std::decay_t<T>>::value;

template <class Tuple>
struct LeastSizeOfAll;
template <class... T>
struct LeastSizeOfAll<std::tuple<T...>> {
    static constexpr std::size_t value = (std::size_t{0} + ... + kLeastSize<T>);
};

template <class T>
struct LeastSize {
    static constexpr std::size_t of() {
        if constexpr (isNumber<T>)
            return kNumberSize<T>;
        else if constexpr (isStruct<T>)
            return LeastSizeOfAll<decltype(std::declval<T&>().tipprmiMembers())>::value;
        else
            return 4;
    }
    static constexpr std::size_t value = of();
};
template <>
struct LeastSize<std::monostate> {
    static constexpr std::size_t value = 0;
};
template <class T, std::size_t N>
struct LeastSize<std::array<T, N>> {
    static constexpr std::size_t value = N * kLeastSize<T>;
};
template <class A, class B>
struct LeastSize<std::pair<A, B>> : LeastSizeOfAll<std::tuple<A, B>> {};
template <class... T>
struct LeastSize<std::tuple<T...>> : LeastSizeOfAll<std::tuple<T...>> {};

/** Writes `count` elements without their count. */
template <class T, class Iterator>
void writeElements(TipprmiStream& stream, Iterator from, std::size_t count) {
    if constexpr (isNumber<T>) {
        static_assert(isPortable<T>, "this number has not the same size on every machine");
        if (count > Transport::kLargestMessage / kNumberSize<T>) {
            stream.stopMarshalling();
            return;
        }
        unsigned char* const to = stream.append(count * kNumberSize<T>);
        for (std::size_t i = 0; to && i < count; ++i, ++from)
            store(to + i * kNumberSize<T>, static_cast<T>(*from));
    } else {
        TipprmiStream::Level const level(stream, TipprmiStream::Level::kWriting);
        for (std::size_t i = 0; level.isAllowed() && i < count; ++i, ++from)
            stream << *from;
    }
}

/** Reads `count` numbers into what is there; whether they were there and in range. */
template <class T, class Iterator>
bool readNumbers(TipprmiStream& stream, Iterator to, std::size_t count) {
    static_assert(isPortable<T>, "this number has not the same size on every machine");
    unsigned char const* const from = stream.take(count * kNumberSize<T>);
    if (!from)
        return false;
    bool inRange = true;
    for (std::size_t i = 0; i < count; ++i, ++to) {
        T value;
        inRange &= load(from + i * kNumberSize<T>, value);
        *to = value;
    }
    if (!inRange)
        stream.stopUnmarshalling();
    return inRange;
}

/** How many elements to make room for ahead: all, unless they are much larger here than they are in
 * the message. */
template <class T>
std::size_t roomAhead(TipprmiStream const& stream, std::size_t count) {
    auto const unread = static_cast<std::size_t>(stream.getUnreadSize());
    auto const accepted = static_cast<std::size_t>(TipprmiStream::kAcceptedLength);
    return std::min(count, std::max(accepted, 4 * unread) / sizeof(T));
}

/** Reads `count` elements, which are made one by one. */
template <class T>
bool readElements(TipprmiStream& stream, std::vector<T>& values, std::size_t count) {
    TipprmiStream::Level const level(stream, TipprmiStream::Level::kReading);
    values.reserve(roomAhead<T>(stream, count));
    for (std::size_t i = 0; level.isAllowed() && i < count && !stream.hasUnmarshallingFailed();
         ++i) {
        if constexpr (std::is_default_constructible_v<T>)
            values.emplace_back();
        else
            values.push_back(tipprmiBlank<T>());
        stream >> values.back();
    }
    return !stream.hasUnmarshallingFailed();
}

/** Reads the value of the alternative `index` into a variant. */
template <std::size_t I, class Variant>
void readAlternative(TipprmiStream& stream, Variant& value, std::size_t index) {
    if constexpr (I < std::variant_size_v<Variant>) {
        if (index == I)
            stream >>
                value.template emplace<I>(tipprmiBlank<std::variant_alternative_t<I, Variant>>());
        else
            readAlternative<I + 1>(stream, value, index);
    } else {
        stream.stopUnmarshalling();
    }
}

}  // namespace tipprmi

// ---- Sequences ---------------------------------------------------------------------------------

template <class T>
TipprmiStream& operator<<(TipprmiStream& stream, std::vector<T> const& values) {
    stream << static_cast<unsigned int>(values.size());
    if constexpr (std::is_same_v<T, bool>)
        tipprmi::writeElements<T>(stream, values.begin(), values.size());
    else
        tipprmi::writeElements<T>(stream, values.data(), values.size());
    return stream;
}

template <class T>
TipprmiStream& operator>>(TipprmiStream& stream, std::vector<T>& values) {
    std::size_t const count = stream.readCount(tipprmi::kLeastSize<T>);
    bool read = false;
    if constexpr (std::is_same_v<T, bool>) {
        values.resize(count);
        read = tipprmi::readNumbers<T>(stream, values.begin(), count);
    } else if constexpr (tipprmi::isNumber<T>) {
        values.resize(count);
        read = tipprmi::readNumbers<T>(stream, values.data(), count);
    } else {
        values.clear();
        read = tipprmi::readElements(stream, values, count);
    }
    if (!read)
        values.clear();
    return stream;
}

/** Bytes that lie somewhere, to be written without a copy of them, or as an argument of `serve` to
 * be read where they have arrived. Not owned. */
struct TipprmiByteView {
    constexpr TipprmiByteView() = default;
    /** Views `count` bytes that somebody else keeps. */
    constexpr TipprmiByteView(std::uint8_t const* bytes, std::size_t count)
        : data(bytes), size(count) {}
    /** Views the bytes of a vector, which must neither go nor grow meanwhile. */
    TipprmiByteView(std::vector<std::uint8_t> const& bytes)
        : TipprmiByteView(bytes.data(), bytes.size()) {}

    /** The bytes as a range. */
    std::uint8_t const* begin() const { return data; }
    std::uint8_t const* end() const { return data + size; }

    std::uint8_t const* data = nullptr;  ///< the first byte, not owned
    std::size_t size = 0;                ///< number of bytes
};

REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, TipprmiByteView value);
inline TipprmiStream& operator<<(TipprmiStream& stream, std::vector<std::uint8_t> const& bytes) {
    return stream << TipprmiByteView{bytes.data(), bytes.size()};
}
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, std::vector<std::uint8_t>& bytes);

REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, std::wstring const& text);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, std::wstring& text);

template <class T, std::size_t N>
TipprmiStream& operator<<(TipprmiStream& stream, std::array<T, N> const& values) {
    tipprmi::writeElements<T>(stream, values.data(), N);
    return stream;
}

template <class T, std::size_t N>
TipprmiStream& operator>>(TipprmiStream& stream, std::array<T, N>& values) {
    if constexpr (tipprmi::isNumber<T>) {
        if (!tipprmi::readNumbers<T>(stream, values.data(), N))
            values.fill(T());
    } else {
        for (T& value : values)
            stream >> value;
    }
    return stream;
}

template <class K, class V, class Order>
TipprmiStream& operator<<(TipprmiStream& stream, std::map<K, V, Order> const& values) {
    stream << static_cast<unsigned int>(values.size());
    TipprmiStream::Level const level(stream, TipprmiStream::Level::kWriting);
    for (auto at = values.begin(); level.isAllowed() && at != values.end(); ++at)
        stream << at->first << at->second;
    return stream;
}

template <class K, class V, class Order>
TipprmiStream& operator>>(TipprmiStream& stream, std::map<K, V, Order>& values) {
    values.clear();
    unsigned int const count = stream.readCount(tipprmi::kLeastSize<std::pair<K, V>>);
    TipprmiStream::Level const level(stream, TipprmiStream::Level::kReading);
    for (unsigned int i = 0; level.isAllowed() && i < count && !stream.hasUnmarshallingFailed();
         ++i) {
        K key = tipprmiBlank<K>();
        stream >> key;
        stream >> values.insert_or_assign(values.end(), std::move(key), tipprmiBlank<V>())->second;
    }
    if (stream.hasUnmarshallingFailed())
        values.clear();
    return stream;
}

// ---- One of several, or none -------------------------------------------------------------------

template <class T>
TipprmiStream& operator<<(TipprmiStream& stream, std::optional<T> const& value) {
    stream << (value ? 1u : 0u);
    TipprmiStream::Level const level(stream, TipprmiStream::Level::kWriting);
    if (value && level.isAllowed())
        stream << *value;
    return stream;
}

template <class T>
TipprmiStream& operator>>(TipprmiStream& stream, std::optional<T>& value) {
    value.reset();
    unsigned int count = 0;
    stream >> count;
    TipprmiStream::Level const level(stream, TipprmiStream::Level::kReading);
    if (count > 1)
        stream.stopUnmarshalling();
    else if (count == 1 && level.isAllowed())
        stream >> value.emplace(tipprmiBlank<T>());
    if (stream.hasUnmarshallingFailed())
        value.reset();
    return stream;
}

inline TipprmiStream& operator<<(TipprmiStream& stream, std::monostate) {
    return stream;
}
inline TipprmiStream& operator>>(TipprmiStream& stream, std::monostate&) {
    return stream;
}

/** A variant that an exception has left without a value makes the write fail. */
template <class... T>
TipprmiStream& operator<<(TipprmiStream& stream, std::variant<T...> const& value) {
    if (value.valueless_by_exception()) {
        stream.stopMarshalling();
        return stream;
    }
    stream << static_cast<unsigned int>(value.index());
    TipprmiStream::Level const level(stream, TipprmiStream::Level::kWriting);
    if (level.isAllowed())
        std::visit([&](auto const& held) { stream << held; }, value);
    return stream;
}

/** After a failed read the variant holds a first alternative of no particular value. */
template <class... T>
TipprmiStream& operator>>(TipprmiStream& stream, std::variant<T...>& value) {
    unsigned int index = 0;
    stream >> index;
    TipprmiStream::Level const level(stream, TipprmiStream::Level::kReading);
    if (level.isAllowed())
        tipprmi::readAlternative<0>(stream, value, index);
    return stream;
}

// ---- Members -----------------------------------------------------------------------------------

template <class A, class B>
TipprmiStream& operator<<(TipprmiStream& stream, std::pair<A, B> const& value) {
    return stream << value.first << value.second;
}
template <class A, class B>
TipprmiStream& operator>>(TipprmiStream& stream, std::pair<A, B>& value) {
    return stream >> value.first >> value.second;
}

template <class... T>
TipprmiStream& operator<<(TipprmiStream& stream, std::tuple<T...> const& value) {
    std::apply([&](auto const&... member) -> void { static_cast<void>((stream << ... << member)); },
               value);
    return stream;
}
template <class... T>
TipprmiStream& operator>>(TipprmiStream& stream, std::tuple<T...>& value) {
    std::apply([&](auto&... member) -> void { static_cast<void>((stream >> ... >> member)); },
               value);
    return stream;
}

// ---- Arguments and results as a whole ----------------------------------------------------------

namespace tipprmi {

/** The number of bytes that a value takes in a stream, as far as that can be told at once: of texts
 * and of lists of numbers, alone or in structs. Of all else, that it takes at least. */
inline std::size_t roomFor(std::string_view text) {
    return 4 + text.size();
}
inline std::size_t roomFor(std::string const& text) {
    return 4 + text.size();
}
inline std::size_t roomFor(TipprmiByteView bytes) {
    return 4 + bytes.size;
}
template <class T>
std::size_t roomFor(std::vector<T> const& values) {
    if constexpr (std::is_same_v<T, std::uint8_t>)
        return 4 + values.size();
    else if constexpr (isNumber<T>)
        return 4 + values.size() * kNumberSize<T>;
    else
        return 4;
}
template <class T>
std::size_t roomFor(T const& value) {
    if constexpr (isStruct<T>) {
        return std::apply(
            [](auto const&... member) { return (std::size_t{0} + ... + roomFor(member)); },
            value.tipprmiMembers());
    } else {
        return kLeastSize<T>;
    }
}

/** Writes values in their order, for which room is made once. */
template <class... T>
void writeAll(TipprmiStream& stream, T const&... values) {
    std::size_t const room = (std::size_t{0} + ... + roomFor(values));
    if (room > static_cast<std::size_t>(TipprmiStream::kUsualSize))
        stream.reserve(room);
    static_cast<void>((stream << ... << values));
}

/** Reads an argument, which may be a view of what lies in the stream. */
template <class T>
void readArgument(TipprmiStream& stream, T& value) {
    if constexpr (std::is_same_v<T, std::string_view>) {
        value = stream.takeText();
    } else if constexpr (std::is_same_v<T, TipprmiByteView>) {
        std::string_view const bytes = stream.takeText();
        value = {reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size()};
    } else {
        stream >> value;
    }
}

}  // namespace tipprmi
