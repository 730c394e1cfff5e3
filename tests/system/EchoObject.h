// An object that gives back what it is given, with an operation for every type that can be sent.
#pragma once

#include <array>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "handler_threads.h"
#include "ipprmi.h"
#include "reflect.h"

namespace echo {

enum class Color : std::uint8_t { kRed = 0, kBlue = 255 };
// With its type stated: else numbers beyond those of its enumerators, which others may send, are
// none of its values.
enum Plain : int { kFew = -3, kMany = 1000000 };

/** Its members lie at other places where words have another size. */
struct Mixed {
    char sign = 0;
    std::uint64_t big = 0;
    bool isSet = false;
    double share = 0;
    std::vector<std::pair<std::int16_t, std::string>> notes;
    REFLECTORB_STRUCT(Mixed, sign, big, isSet, share, notes)
};

/** May hold itself. */
struct Node {
    std::int16_t value = 0;
    std::vector<Node> children;
    REFLECTORB_STRUCT(Node, value, children)
};

template <class T>
TipprmiSequence<T> sequence(std::vector<T> const& values) {
    TipprmiSequence<T> made;
    for (T const& value : values)
        made.push_back(value);
    return made;
}

/** A value of every type, no type twice. */
inline auto everyValue() {
    using Texts = std::vector<std::string>;
    using Choice = std::variant<std::monostate, int, std::string, double>;
    return std::tuple(
        true, '\xE9', L'\u20AC', u'\u20AC', U'\U0001F511', std::int8_t{-128}, std::uint8_t{255},
        std::int16_t{-32768}, std::uint16_t{65535}, std::numeric_limits<std::int32_t>::min(),
        std::numeric_limits<std::uint32_t>::max(), std::numeric_limits<std::int64_t>::min(),
        std::numeric_limits<std::uint64_t>::max(), -0.1F, 1e-300, Color::kBlue, kFew,
        std::string("a\0b", 3), std::wstring(L"\u00E4\u20AC"), std::vector<std::uint8_t>{0, 255},
        std::vector<int>{1, -1}, std::vector<std::uint64_t>{1, 0x0123456789ABCDEF},
        std::vector<double>{0.1, -1e300}, std::vector<float>{0.5F}, std::vector<bool>{true, false},
        Texts{"a", ""}, std::vector<std::vector<char>>{{'b'}, {}},
        std::vector<std::vector<std::uint8_t>>{{7}, {}}, std::vector<Color>{Color::kRed},
        std::array<std::uint8_t, 2>{1, 255}, std::array<Texts, 2>{Texts{"x"}, Texts{}},
        std::map<std::string, int>{{"a", 1}, {"b", -1}},
        std::map<std::uint16_t, std::vector<double>>{{65535, {2.5}}}, std::optional<int>(-1),
        std::optional<std::string>(), Choice("x"), std::pair<int, std::string>(1, "one"),
        std::tuple<bool, double, std::int64_t>(true, 0.25, -1),
        Mixed{'m', 1ULL << 63, true, 0.1, {{-2, "two"}}}, Node{1, {Node{2, {}}, Node{-3, {}}}},
        sequence<double>({3.14, -0.0}), sequence<std::string>({"s"}), TipprmiOID("oid", NSID_UNIT),
        TipprmiAny().insert(42u), TreflectObject());
}
using EveryType = decltype(everyValue());
constexpr std::size_t kTypes = std::tuple_size_v<EveryType>;

using Names = std::array<std::array<char, 7>, kTypes>;
constexpr Names numbered(char const (&word)[5]) {
    Names names{};
    for (std::size_t i = 0; i < kTypes; ++i)
        names[i] = {word[0], word[1], word[2], word[3], char('0' + i / 10), char('0' + i % 10),
                    '\0'};
    return names;
}
// Of the operation that passes a type, and of the attribute that has its value.
constexpr Names kPass = numbered("pass");
constexpr Names kKept = numbered("Kept");

constexpr unsigned int kClass = 0x4543484F;
/** The method code of the operation that passes a type. */
constexpr unsigned int codeOf(std::size_t type) {
    return static_cast<unsigned int>(type + 1);
}

class Object : public TreflectInterface<Object> {
    template <std::size_t I>
    using Type = std::tuple_element_t<I, EveryType>;

    template <std::size_t... I>
    static constexpr auto describeAll(std::index_sequence<I...>) {
        return describe("Echo", kClass, op<&Object::pass<Type<I>>>(kPass[I].data(), codeOf(I))...,
                        attribute<&Object::get<Type<I>>, &Object::set<Type<I>>>(
                            kKept[I].data(), 200 + 2 * I, 201 + 2 * I)...,
                        attribute<&Object::getHistory, &Object::setHistory>("History", 901, 902));
    }

public:
    explicit Object(std::string const& name)
        : TreflectInterface(TipprmiOID(name, NSID_UNIT), nullptr, name) {}

    template <class T>
    T pass(T const& value) {
        return value;
    }
    template <class T>
    T get() {
        return std::get<T>(kept_);
    }
    template <class T>
    void set(T const& value) {
        std::get<T>(kept_) = value;
    }
    std::vector<double> getHistory() { return history_; }
    void setHistory(std::vector<double> const& history) { history_ = history; }

    static constexpr auto interface() { return describeAll(std::make_index_sequence<kTypes>()); }

private:
    static EveryType blanks() {
        return std::apply(
            [](auto const&... value) {
                return EveryType(tipprmiBlank<std::decay_t<decltype(value)>>()...);
            },
            everyValue());
    }

    // Guarded by the run permission.
    EveryType kept_ = blanks();
    std::vector<double> history_;
};

}  // namespace echo
