#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ipprmi/TipprmiAny.h"
#include "ipprmi/TipprmiResult.h"
#include "oswrap/Export.h"

/** Types with names, to which the names of other types refer. A value; no lock. */
class REFLECTORB_API TreflectTypes {
public:
    /** Adds a type, in place of one of this name: the text of an enum, a struct or a union that has
     * a name. False, and nothing is added, for any other text. What it refers to may be added
     * later. */
    bool add(std::string const& definition);
    /** The text of a type; null when there is none of this name. */
    std::string const* find(std::string_view name) const;
    /** All, by their names. */
    std::map<std::string, std::string, std::less<>> const& texts() const { return texts_; }

private:
    std::map<std::string, std::string, std::less<>> texts_;
};

/**
 * The type of an argument or a result, made from the name that a class gives it in its tables (see
 * TreflectMetaOperation::registerParameter). With it a program that knows nothing of the class
 * turns text into an encoded value and back, and finds where a value ends in a response.
 *
 * | name | C++ type | text |
 * |---|---|---|
 * | int | int | -1, 42, 0x10, -0x10 |
 * | unsigned | unsigned int | 42, 0x10 |
 * | int8, int16, int32, int64 | std::int8_t and so on | as an int |
 * | uint8, uint16, uint32, uint64 | std::uint8_t and so on | as an unsigned |
 * | float, double | float, double | 1.5, -2e-9, inf, nan |
 * | bool | bool | true or false; also 1 or 0 |
 * | char | char | a string of one byte |
 * | string | std::string, char const* | "with \"quotes\"", or bare |
 * | bytes | std::vector<std::uint8_t> | 0x0A0B; 0x for none |
 * | oid | TipprmiOID | as a string, then perhaps its namespace: `"name"@node`, `name@node` |
 * | object | TipprmiObjectClient, TreflectObject | the object's identifier, as an oid |
 * | any | TipprmiAny | its bytes, 0x0000002A, or a value with its type, unsigned(42) |
 * | void | std::monostate | {} |
 * | sequence<T> | TipprmiSequence<T, 0u>, std::vector<T> | [1, 2, 3], [] |
 * | array<T, N> | std::array<T, N> | [1, 2, 3] |
 * | optional<T> | std::optional<T> | [1], [] |
 * | map<K, V> | std::map<K, V> | {"a": 1, "b": 2}, {} |
 * | enum Name{A=0, B=7} | an enum | A, or a number |
 * | {T, T, ...} | values written one after the other, one or more | {1, true} |
 * | struct Name{T a, T b} | a struct | {a: 1, b: true}, the members in any order; or {1, true} |
 * | union Name{T a, T b} | std::variant | {b: true} |
 *
 * Names may be nested, and have blanks between their parts. The name of an enum, a struct or a
 * union may be left out. Where it stands, it may be used for the type in the rest of the text, and
 * within the type itself: `struct Node{int value, sequence<Node> children}`. Any other word is the
 * name of one of the TreflectTypes that were given along. Types have names of letters, digits, _
 * and ::. A member without a name of its own, in all or none of a struct or a union, has its number
 * in the text of a union: {0: 5}. An enumerator without a number has the previous one's plus 1. A
 * type may have a name of its own behind it, as of a parameter: `unsigned limit`.
 *
 * No type is a part of itself but through a sequence, an optional, a map or a union, and what
 * elements may be of has bytes. Values stand within each other to a bounded depth.
 *
 * Text as well may have blanks between its parts, and around values:
 *
 * - Numbers are checked for their range. A bool that arrives is true unless it is 0; any other
 *   value that arrives out of range is no value of the type, except a number that is none of an
 *   enum's: it is written as a number.
 * - A string in quotes may hold `\"`, `\\`, `\n`, `\r`, `\t` and `\x` with two hexadecimal digits;
 * other bytes stand for themselves. A bare one ends at the next of , ] } ), as the key of a map
 * also at : and has no blanks at its ends; where the whole text is one string, it is all of it. A
 * bare one of no characters must be the whole text.
 * - A namespace is unit, node or a number; none means unit. Of a bare identifier only the last @
 *   counts, and only with a namespace behind it.
 * - An object is looked for, which needs the run permission and may ask other brokers; there must
 *   be one. The empty identifier is the handle on nothing. An object without an identifier is
 *   written rmi_ and the hexadecimal numbers of its broker and of itself, and found by that.
 *
 * A value; no lock; copies share what they know. Errors are results: nothing is thrown or logged.
 */
class REFLECTORB_API TreflectParameterType {
public:
    /** How many names may stand within each other: sequence<int> are two. */
    static constexpr int kMaxDepth = 16;
    /** How many values may stand within each other. */
    static constexpr int kMaxValueDepth = 256;

    /** Any text is taken; one that is no name of a type makes an invalid type. `types` are those
     * that the text may refer to; they are not needed later. */
    explicit TreflectParameterType(std::string const& name,
                                   TreflectTypes const& types = TreflectTypes());

    /** An invalid type takes, parses and prints nothing. */
    bool isValid() const { return shape_ != nullptr; }
    /** The name as it was given. */
    std::string const& name() const { return name_; }
    /** The name behind the type, such as that of a parameter; empty without one. */
    std::string const& label() const { return label_; }

    /**
     * Moves the encoding of one value from `stream` into `value`, as its content. False, with both
     * as they were, when what is left of the stream begins with no whole value of this type.
     */
    bool take(TipprmiStream& stream, TipprmiAny& value) const;
    /** Makes `value` the encoding of what `text` says. False, with `value` as it was, when `text`
     * is no value of this type, or too long for a message. */
    bool parse(std::string const& text, TipprmiAny& value) const;
    /**
     * The text of a value, which `parse` understands; the text of what is parsed from it is the
     * same again. Control characters are escaped; bytes beyond ASCII are not. Fails with
     * TipprmiFailure::kUnreadable when `value` is not the encoding of exactly one value.
     */
    TipprmiResult<std::string> print(TipprmiAny const& value) const;
    /** Whether `value` is the encoding of exactly one value of this type. A bool must be 0 or 1. */
    bool accepts(TipprmiAny const& value) const;
    /** Whether a value of one type has the form of the other: they differ in names, and in the
     * range of numbers of the same size, at most. Two invalid types have no form. */
    bool hasFormOf(TreflectParameterType const& other) const;

private:
    friend class TreflectTypes;
    friend class TreflectValueCheck;

    enum class Kind : unsigned char;
    struct Node;
    struct Shape;
    class Compiler;
    class Comparison;
    class Conversion;
    template <class Reader>
    class Walk;
    class Measure;
    class Parser;
    class Printer;

    /** The name that the text of an enum, a struct or a union gives it; empty for other texts. */
    static std::string nameIn(std::string const& definition);
    static bool isInRange(Kind kind, std::uint32_t number);

    /** How values of one type go into the other. */
    enum class Fit {
        kNever,    // another form
        kInRange,  // those that lie in its range
        kAlways
    };
    /** What numbers an enum takes. */
    enum class Enums {
        kOpen,   // any: who reads may be older than who writes
        kListed  // its own, and no value of an enum of another name
    };
    Fit fitInto(TreflectParameterType const& other, Enums enums) const;
    /** Whether the value of this type with which `bytes` begins is one of the other, too, into
     * which such values may fit. */
    bool isWithin(TreflectParameterType const& other, Enums enums, unsigned char const* bytes,
                  std::size_t size) const;
    /** Whether these bytes begin with a whole value. */
    bool isAtStartOf(unsigned char const* bytes, std::size_t size) const;
    /** The type of the elements of a sequence or an array; an invalid one for other types. */
    TreflectParameterType element() const;
    /** Where an element begins among the bytes of a sequence or an array; nothing when it has no
     * such element. Beyond `size` when the bytes are no such value. */
    std::optional<std::size_t> placeOf(int index, unsigned char const* bytes,
                                       std::size_t size) const;

    std::string name_;
    std::string label_;
    std::shared_ptr<Shape const> shape_;  // null when the name is of no type
    unsigned int root_ = 0;               // the node with which the type begins
};
