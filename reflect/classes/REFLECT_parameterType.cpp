// Types of arguments and results: where a value ends.
#include "reflect/classes/ParameterTypeParts.h"

// ---- Encoded values -----------------------------------------------------------------------------

bool TreflectParameterType::isInRange(Kind kind, std::uint32_t number) {
    switch (kind) {
        case Kind::kInt8:
            return number + 0x80 < 0x100;
        case Kind::kInt16:
            return number + 0x8000 < 0x10000;
        case Kind::kUint8:
        case Kind::kChar:
            return number < 0x100;
        case Kind::kUint16:
            return number < 0x10000;
        default:
            return true;
    }
}

bool TreflectParameterType::take(TipprmiStream& stream, TipprmiAny& value) const {
    if (!isValid())
        return false;
    int const unread = stream.getUnreadSize();
    unsigned char const* const from =
        unread > 0 ? stream.getDataPtr() + (stream.getDataSize() - unread) : nullptr;
    ParameterBytes bytes(from, static_cast<std::size_t>(unread));
    Measure(*shape_, bytes, ParameterCheck::kAsReaders).value(root_);
    return bytes.complete() && value.takeBare(stream, unread - static_cast<int>(bytes.left()));
}

bool TreflectParameterType::accepts(TipprmiAny const& value) const {
    if (!isValid())
        return false;
    ParameterBytes bytes(value);
    Measure(*shape_, bytes, ParameterCheck::kAsWriters).value(root_);
    return bytes.complete() && bytes.left() == 0;
}
