#pragma once

#include <string>
#include <typeinfo>

#include "ipprmi/TipprmiAny.h"
#include "logging/LineLimit.h"
#include "reflect/TreflectParameterType.h"
#include "reflect/TreflectTypeName.h"

class TreflectMetaAttribute;

/**
 * How values of a C++ type go with an attribute whose type the class tells in its table. Types are
 * compared once, when the check is made; a meta attribute keeps it (see
 * TreflectMetaAttribute::check). Nothing is wrong, and nothing is to be looked at, where the table
 * does not tell the attribute's type, or nobody has named the C++ type (see TreflectTypeName).
 *
 * Constant once it is made, and neither copied nor moved; any thread. Refers to nothing of the
 * class, which may go while whoever shares the check waits.
 */
class REFLECTORB_API TreflectValueCheck {
public:
    /** A C++ type. Another shared object may come to lie where a closed one has been, so where its
     * name comes from does not tell a type apart. */
    struct Type {
        std::string (*name)();  // as tables have it
        char const* id;         // the compiler's name; static

        /** That of T. */
        template <class T>
        static Type of() {
            return {&treflectTypeName<T>, typeid(T).name()};
        }
    };
    /** What is done with the value. */
    enum class Use : unsigned char {
        kRead,               // the whole value
        kReadElement,        // one element of it
        kReadMarkedElement,  // the same, of what the reader says to be a sequence or an array
        kWrite,
        kWriteElement  // which nobody can
    };

    /** Compares the types, with no effect on the attribute, of which copies are kept. */
    TreflectValueCheck(TreflectMetaAttribute const& attribute, Type type, Use use);

    /** Whether it is the check for this type and this use. */
    bool isOf(Type type, Use use) const {
        return typeName_ == type.name && use_ == use && typeId_ == type.id;
    }
    /** Whether there is something to be looked at, value by value. */
    bool isNeeded() const { return verdict_ != Verdict::kGood; }
    /** Whether no value can be right. */
    bool isMisuse() const { return verdict_ == Verdict::kMisuse; }
    /** What is wrong, in words; or what is, when a value is out of range. */
    std::string mistake() const;
    /** Logs it at level 3, not too often. */
    void tell() const;

    /** A value that can be read; no element of this index; or something that is no value of the
     * C++ type. */
    enum class Found { kValue, kNoElement, kMisfit };
    /** Goes to the value, or the element, that is to be read from `response`, which is about to
     * yield the attribute's value; looks whether it is one of the C++ type. */
    Found find(TipprmiStream& response, int index) const;
    /** Whether the encoding of a value of the C++ type is one of the attribute. */
    bool admits(TipprmiAny const& value) const;

private:
    enum class Verdict : unsigned char { kGood, kLook, kMisuse };

    void compare(std::string const& misfit);
    void compareElements();
    void misused(std::string const& complaint);

    std::string const attribute_;  // its name
    std::string const class_;      // likewise
    std::string (*const typeName_)();
    std::string const typeId_;
    Use const use_;
    Verdict verdict_ = Verdict::kGood;
    TreflectParameterType whole_;  // of the attribute, as the table tells it
    TreflectParameterType told_;   // the same, or that of its elements
    TreflectParameterType own_;
    bool ranges_ = false;    // whether each value's range is to be looked at
    std::string complaint_;  // what follows the attribute and its type
    mutable Logging::LineLimit limit_;
};
