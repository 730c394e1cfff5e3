#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "ipprmi/TipprmiAny.h"
#include "ipprmi/TipprmiOID.h"
#include "ipprmi/TipprmiObjectClient.h"
#include "ipprmi/TipprmiResult.h"
#include "ipprmi/TipprmiSequence.h"
#include "ipprmi/TipprmiStruct.h"

/**
 * The name that a C++ type has in the tables of a class (see TreflectParameterType): the static
 * `text()`. Empty for types that nobody has named; a type with operators of its own is named by a
 * specialization:
 *
 *     template <>
 *     struct TreflectTypeName<Celsius> {
 *         static std::string text() { return "double"; }
 *     };
 */
template <class T>
struct TreflectTypeName;

/** The same, of a type with or without const and reference. */
template <class T>
std::string treflectTypeName() {
    return TreflectTypeName<std::decay_t<T>>::text();
}

namespace treflect {

/** "name<part, part>"; empty when a part is. */
REFLECTORB_API std::string typeOf(char const* name, std::vector<std::string> const& parts);
/** "{part, part}", behind `name`; empty when a part is. */
REFLECTORB_API std::string typeOfMembers(char const* name, std::vector<std::string> const& parts);
/** The type of a struct of which `text` tells name and members, as REFLECTORB_STRUCT does. */
REFLECTORB_API std::string typeOfStruct(char const* text, std::vector<std::string> const& members);

/** Tells whether the type of a struct is being made just now, within which its name will do. */
class REFLECTORB_API StructInWork {
public:
    /** `text` as of TipprmiStruct's tipprmiText, told apart by its address and content. */
    explicit StructInWork(char const* text);
    ~StructInWork();
    StructInWork(StructInWork const&) = delete;
    StructInWork& operator=(StructInWork const&) = delete;

    bool isWithinItself() const { return within_; }
    /** The name alone. */
    std::string name() const;

private:
    char const* const text_;
    StructInWork* const outer_;
    bool within_ = false;
};

template <class T>
constexpr char const* numberName() {
    constexpr bool isSigned = std::is_signed_v<T>;
    if constexpr (std::is_same_v<T, bool>)
        return "bool";
    else if constexpr (std::is_same_v<T, char>)
        return "char";
    else if constexpr (std::is_same_v<T, wchar_t>)
        return "unsigned";  // its sign is another one on each processor
    else if constexpr (std::is_floating_point_v<T>)
        return sizeof(T) == 4 ? "float" : sizeof(T) == 8 ? "double" : "";
    else if constexpr (sizeof(T) == 1)
        return isSigned ? "int8" : "uint8";
    else if constexpr (sizeof(T) == 2)
        return isSigned ? "int16" : "uint16";
    else if constexpr (sizeof(T) == 4)
        return isSigned ? "int" : "unsigned";
    else
        return isSigned ? "int64" : "uint64";
}

template <class Tuple>
struct NamesOf;
template <class... T>
struct NamesOf<std::tuple<T...>> {
    static std::vector<std::string> list() { return {treflectTypeName<T>()...}; }
};

template <class T>
std::string structName() {
    StructInWork const inWork(T::tipprmiText());
    if (inWork.isWithinItself())
        return inWork.name();
    return typeOfStruct(T::tipprmiText(),
                        NamesOf<decltype(std::declval<T&>().tipprmiMembers())>::list());
}

}  // namespace treflect

template <class T>
struct TreflectTypeName {
    /** The name; empty for a type that nobody has named. */
    static std::string text() {
        if constexpr (std::is_void_v<T>)
            return "void";
        else if constexpr (std::is_arithmetic_v<T>)
            return treflect::numberName<T>();
        else if constexpr (std::is_same_v<T, NamespaceId>)
            return "unsigned";
        else if constexpr (std::is_enum_v<T>)
            return treflect::numberName<std::underlying_type_t<T>>();
        else if constexpr (tipprmi::isStruct<T>)
            return treflect::structName<T>();
        else if constexpr (std::is_base_of_v<TipprmiObjectClient, T>)
            return "object";
        else
            return {};
    }
};

template <>
struct TreflectTypeName<std::string> {
    static std::string text() { return "string"; }
};
template <>
struct TreflectTypeName<std::string_view> : TreflectTypeName<std::string> {};
template <>
struct TreflectTypeName<char const*> : TreflectTypeName<std::string> {};
template <>
struct TreflectTypeName<char*> : TreflectTypeName<std::string> {};
template <>
struct TreflectTypeName<std::wstring> {
    static std::string text() { return "sequence<unsigned>"; }
};
template <>
struct TreflectTypeName<std::vector<std::uint8_t>> {
    static std::string text() { return "bytes"; }
};
template <>
struct TreflectTypeName<TipprmiByteView> : TreflectTypeName<std::vector<std::uint8_t>> {};
template <>
struct TreflectTypeName<TipprmiOID> {
    static std::string text() { return "oid"; }
};
template <>
struct TreflectTypeName<TipprmiAny> {
    static std::string text() { return "any"; }
};
template <>
struct TreflectTypeName<std::monostate> : TreflectTypeName<void> {};
template <class T>
struct TreflectTypeName<TipprmiResult<T>> : TreflectTypeName<std::decay_t<T>> {};
template <class T, unsigned int Bound>
struct TreflectTypeName<TipprmiSequence<T, Bound>> {
    static std::string text() { return treflect::typeOf("sequence", {treflectTypeName<T>()}); }
};
template <class T>
struct TreflectTypeName<std::vector<T>> {
    static std::string text() { return treflect::typeOf("sequence", {treflectTypeName<T>()}); }
};
template <class T>
struct TreflectTypeName<std::optional<T>> {
    static std::string text() { return treflect::typeOf("optional", {treflectTypeName<T>()}); }
};
template <class T, std::size_t N>
struct TreflectTypeName<std::array<T, N>> {
    static std::string text() {
        return treflect::typeOf("array", {treflectTypeName<T>(), std::to_string(N)});
    }
};
template <class K, class V, class Order>
struct TreflectTypeName<std::map<K, V, Order>> {
    static std::string text() {
        return treflect::typeOf("map", {treflectTypeName<K>(), treflectTypeName<V>()});
    }
};
template <class A, class B>
struct TreflectTypeName<std::pair<A, B>> {
    static std::string text() {
        return treflect::typeOfMembers("", {treflectTypeName<A>(), treflectTypeName<B>()});
    }
};
template <class... T>
struct TreflectTypeName<std::tuple<T...>> {
    static std::string text() { return treflect::typeOfMembers("", {treflectTypeName<T>()...}); }
};
template <class... T>
struct TreflectTypeName<std::variant<T...>> {
    static std::string text() {
        return treflect::typeOfMembers("union", {treflectTypeName<T>()...});
    }
};
