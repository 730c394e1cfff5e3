#pragma once

#include <string>
#include <vector>

#include "ipprmi/TipprmiAny.h"
#include "ipprmi/TipprmiResult.h"
#include "oswrap/Export.h"

/**
 * The type of an argument or a result, made from the name that a class gives it in its tables (see
 * TreflectMetaOperation::registerParameter). With it a program that knows nothing of the class
 * turns text into an encoded value and back, and finds where a value ends in a response.
 *
 * | name | C++ type | text |
 * |---|---|---|
 * | int | int | -1, 42, 0x10, -0x10 |
 * | unsigned | unsigned int | 42, 0x10 |
 * | bool | bool | true or false; also 1 or 0 |
 * | string | std::string, char const* | "with \"quotes\"", or bare |
 * | oid | TipprmiOID | as a string, then perhaps its namespace: "name"@node, name@node |
 * | object | TipprmiObjectClient, TreflectObject | the object's identifier, as an oid |
 * | any | TipprmiAny | its bytes, 0x0000002A, or a value with its type, unsigned(42) |
 * | sequence<T> | TipprmiSequence<T, 0u> | [1, 2, 3], [] |
 * | {T,T,...} | values written one after the other, one or more | {1, true} |
 *
 * Names may be nested, and have blanks between their parts. Text as well, and around values:
 *
 * - Numbers are checked for their range. A bool that arrives is true unless it is 0.
 * - A string in quotes may hold \" \\ \n \r \t and \x with two hexadecimal digits; other bytes
 *   stand for themselves. A bare one ends at the next of , ] } ) and has no blanks at its ends;
 *   where the whole text is one string, it is all of it. A bare one of no characters must be the
 *   whole text.
 * - A namespace is unit, node or a number; none means unit. Of a bare identifier only the last @
 *   counts, and only with a namespace behind it.
 * - An object is looked for, which needs the run permission and may ask other brokers; there must
 *   be one. The empty identifier is the handle on nothing. An object without an identifier is
 *   written rmi_ and the hexadecimal numbers of its broker and of itself, and found by that.
 *
 * A value; no lock. Errors are results: nothing is thrown or logged.
 */
class REFLECTORB_API TreflectParameterType {
public:
    /** How many names may stand within each other: sequence<int> are two. */
    static constexpr int kMaxDepth = 16;

    /** Any text is taken; one that is no name of a type makes an invalid type. */
    explicit TreflectParameterType(std::string const& name);

    /** An invalid type takes, parses and prints nothing. */
    bool isValid() const { return !nodes_.empty(); }
    /** The name as it was given. */
    std::string const& name() const { return name_; }

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

private:
    enum class Kind : unsigned char {
        kInt,
        kUnsigned,
        kBool,
        kString,
        kOid,
        kObject,
        kAny,
        kSequence,
        kStruct
    };
    struct Node {
        Kind kind;
        unsigned int end;  // index behind its last part
    };
    class Compiler;
    class Measure;
    class Parser;
    class Printer;

    std::string name_;
    // The type and its parts in the order of the name, a whole ahead of its parts; none when the
    // name is of no type.
    std::vector<Node> nodes_;
};
