#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ipprmi/TipprmiAny.h"
#include "ipprmi/TipprmiStruct.h"
#include "oswrap/Export.h"
#include "reflect/TreflectTypeName.h"

class TreflectMetaObject;

/**
 * All that a process knows of a class, as a value that can be sent: what the process object serves
 * (see TreflectProcessObject), and what a reader makes a meta object of (TreflectMetaClass::learn).
 *
 * Room to grow: `version` says which version of the description has been written. Later versions
 * leave the members as they are, and put what they add into `more`, by names; a reader takes what
 * it knows and leaves the rest alone.
 *
 * Types are names of types as TreflectParameterType understands them; they may refer to `types`,
 * which are those of TreflectTypes.
 */
struct REFLECTORB_API TreflectClassDescription {
    /** The version that this library writes. */
    static constexpr unsigned int kVersion = 1;

    // What a reader accepts.
    static constexpr std::size_t kMostMembers = 1024;   ///< operations, or attributes
    static constexpr std::size_t kMostTypes = 256;      ///< with names
    static constexpr std::size_t kMostParts = 64;       ///< bases; or parameters, exceptions of one
    static constexpr std::size_t kLongestName = 255;    ///< bytes, of a name
    static constexpr std::size_t kLongestType = 16384;  ///< bytes, of a type
    static constexpr std::size_t kLongestText = 65536;  ///< of a comment
    static constexpr std::size_t kMostExpanded = 1 << 20;  ///< see expandedTypes

    /** What later versions add, by names. */
    using More = std::map<std::string, TipprmiAny>;

    /** A class from which this one is derived. */
    struct Base {
        std::string name;        ///< the base's
        unsigned int id = 0;     ///< its class id
        std::uint64_t hash = 0;  ///< that of its own description
        REFLECTORB_STRUCT(Base, name, id, hash)
    };
    /** What an operation takes or yields. */
    struct Parameter {
        std::string name;  ///< empty when the tables tell none
        std::string type;  ///< empty for one that nobody has named
        REFLECTORB_STRUCT(Parameter, name, type)
    };
    /** What an operation may be refused with. */
    struct Exception {
        unsigned int code = 0;  ///< of the failure
        std::string type;       ///< of a struct with a name
        REFLECTORB_STRUCT(Exception, code, type)
    };
    /** What can be called. */
    struct Operation {
        std::string name;               ///< as callers use it
        unsigned int code = 0;          ///< method code
        std::vector<Parameter> in;      ///< as far as they are described without a gap
        std::vector<Parameter> out;     ///< results, likewise
        std::vector<Exception> raises;  ///< what it may be refused with
        std::string doc;  ///< the comment of who wrote the interface; empty when it is not known
        More more;        ///< what this version does not know
        REFLECTORB_STRUCT(Operation, name, code, in, out, raises, doc, more)
    };
    /** How the value of an attribute is made up of elements. */
    enum class Kind : unsigned int { Plain, Sequence, Array };
    /** What can be read, and perhaps written. */
    struct Attribute {
        std::string name;         ///< without "get" and "set"
        Kind kind = Kind::Plain;  ///< how the value is made up
        unsigned int length = 1;  ///< of an array; the most elements of a sequence, 0: any number
        bool writable = false;    ///< whether there is a set operation
        std::string valueClass;   ///< of a value that is a reflective object; else empty
        unsigned int valueClassId = 0;  ///< likewise, else 0
        std::string doc;                ///< as that of an operation
        More more;                      ///< likewise
        REFLECTORB_STRUCT(Attribute, name, kind, length, writable, valueClass, valueClassId, doc,
                          more)
    };

    unsigned int version = kVersion;    ///< see above
    std::string name;                   ///< of the class
    unsigned int id = 0;                ///< its class id
    std::uint64_t hash = 0;             ///< see computeHash
    std::vector<Base> bases;            ///< direct ones, the most important first
    std::vector<Operation> operations;  ///< the class's own, as are all that follow
    std::vector<Attribute> attributes;  ///< their get and set operations are among the operations
    std::vector<std::string> types;     ///< types with names, see TreflectTypes
    std::string doc;                    ///< as that of an operation
    More more;                          ///< likewise
    REFLECTORB_STRUCT(TreflectClassDescription, version, name, id, hash, bases, operations,
                      attributes, types, doc, more)

    /** That of a class of this process, which is complete: found in the InterfaceRepository. Its
     * members come in the order of their names. Under the run permission. */
    static TreflectClassDescription of(TreflectMetaObject const& meta);

    /**
     * What makes the class: a line for it and one for each of its bases, members and types, in an
     * order that does not depend on that of the members. Without names of parameters and comments,
     * on which no caller depends; with "?" for a type that is not told.
     */
    std::vector<std::string> outline() const;
    /** A number for the outline, 64 bits of FNV-1a over its lines: the same in all processes that
     * describe the class, with all its bases, in the same way. */
    std::uint64_t computeHash() const;
    /** The lines of the outline that one has and the other has not: "- " before those of `former`,
     * "+ " before those of `latter`. */
    static std::vector<std::string> difference(TreflectClassDescription const& former,
                                               TreflectClassDescription const& latter);
    /** How many bytes of `types` there are at most when the type of each parameter and exception
     * has a copy of those to which it leads, as in what a reader makes of them. Not counted on
     * beyond kMostExpanded. */
    std::size_t expandedTypes() const;
    /** Why no reader would take it, whoever has sent it: beyond the bounds above, unreadable
     * characters, members that occur twice, names and types that the outline would not tell apart,
     * a hash that is not that of its outline; empty when nothing is wrong. That the types are known
     * is not asked for. */
    std::string fault() const;
    /** The same, for who wants to know expandedTypes as well, which takes a while: `expanded` is
     * its answer when nothing is wrong, else undefined. */
    std::string fault(std::size_t& expanded) const;
};

template <>
struct TreflectTypeName<TreflectClassDescription::Kind> {
    static std::string text() { return "enum Kind{Plain, Sequence, Array}"; }
};
