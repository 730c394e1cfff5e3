// What the object that tells of an attribute's change and those who hear of it have in common.
#pragma once

#include <optional>

#include "ipprmi/TipprmiAny.h"

class TreflectMetaAttribute;
class TreflectMetaObject;
class TreflectObject;

/**
 * What observers of an attribute's changes are registered for, after calls: its set operation, so
 * that they hear of both, or, without one, the code of its get operation with kMark in it. No
 * operation has such a code; observers of the get operation itself would make everybody wait for
 * them who reads the value.
 */
struct ChangeKey {
    static constexpr unsigned int kMark = 0x80000000;

    TreflectMetaObject const* declaring;
    unsigned int classId;  // of `declaring`
    unsigned int methodCode;

    bool isOfSet() const { return (methodCode & kMark) == 0; }
    /** None when the attribute's class, or the one that has its operation, has gone. */
    static std::optional<ChangeKey> of(TreflectMetaAttribute const& attribute);
};

/** The encoding of an attribute's value, asked of the object; none when it does not yield it. */
std::optional<TipprmiAny> wholeValue(TreflectObject const& object,
                                     TreflectMetaAttribute const& attribute);
