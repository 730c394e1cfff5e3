// Types of arguments and results: where a value ends, and which types have one form.
#include <set>

#include "reflect/classes/ParameterTypeParts.h"

namespace {

/** How strictly values that arrive are looked at. */
enum class Check { kAsReaders, kAsWriters };

}  // namespace

// ---- Encoded values -----------------------------------------------------------------------------

/** Passes one value. Its effort is bounded by the bytes: what may be repeated has some. */
class TreflectParameterType::Measure : public Walk<Measure> {
public:
    Measure(Shape const& shape, ParameterBytes& bytes, Check check)
        : Walk(shape, bytes), check_(check) {}

private:
    friend class Walk;

    void content(unsigned int at) {
        Node const& node = shape_.nodes[at];
        switch (node.kind) {
            case Kind::kFloat:
                bytes_.take(4);
                break;
            case Kind::kInt64:
            case Kind::kUint64:
            case Kind::kDouble:
                bytes_.take(8);
                break;
            case Kind::kString:
            case Kind::kBytes:
            case Kind::kAny:
                bytes_.text();
                break;
            case Kind::kOid:
                bytes_.text();
                bytes_.take(4);
                break;
            case Kind::kObject:
                bytes_.text();
                bytes_.take(12);
                break;
            case Kind::kVoid:
            case Kind::kEnumerator:
            case Kind::kReference:
                break;
            default:
                if (!container(at))
                    word(node.kind);
        }
    }

    void word(Kind kind) {
        std::uint32_t const number = bytes_.number();
        bool const isOddBool = kind == Kind::kBool && number > 1 && check_ == Check::kAsWriters;
        if (isOddBool || !isInRange(kind, number))
            bytes_.fail();
    }

    void elements(unsigned int element, std::uint32_t count) {
        for (; count > 0 && bytes_.complete(); --count)
            value(element);
    }

    void entries(unsigned int at) {
        for (std::uint32_t left = bytes_.number(); left > 0 && bytes_.complete(); --left)
            parts(at);
    }

    void parts(unsigned int at) {
        for (unsigned int part = at + 1; part < shape_.nodes[at].end && bytes_.complete();
             part = shape_.nodes[part].end)
            value(part);
    }

    void alternative(unsigned int at) {
        unsigned int const part = shape_.partOf(at, bytes_.number());
        if (part == 0)
            bytes_.fail();
        else if (bytes_.complete())
            value(part);
    }

    Check const check_;
};

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
    Measure(*shape_, bytes, Check::kAsReaders).value(0);
    return bytes.complete() && value.takeBare(stream, unread - static_cast<int>(bytes.left()));
}

bool TreflectParameterType::accepts(TipprmiAny const& value) const {
    if (!isValid())
        return false;
    ParameterBytes bytes(value);
    Measure(*shape_, bytes, Check::kAsWriters).value(0);
    return bytes.complete() && bytes.left() == 0;
}

// ---- Two types ----------------------------------------------------------------------------------

/** Compares the parts of two types. */
class TreflectParameterType::Comparison {
public:
    Comparison(Shape const& a, Shape const& b) : a_(a), b_(b) {}

    bool isSame(unsigned int a, unsigned int b) {
        a = withoutWrapping(a_, a);
        b = withoutWrapping(b_, b);
        // Of types that refer to themselves: the same as far as nothing speaks against it.
        if (!compared_.emplace(a, b).second)
            return true;
        Node const& left = a_.nodes[a];
        Node const& right = b_.nodes[b];
        if (left.kind == Kind::kArray && right.kind == Kind::kStruct)
            return isArrayOf(a_, a, b_, b,
                             [&](auto element, auto part) { return isSame(element, part); });
        if (left.kind == Kind::kStruct && right.kind == Kind::kArray)
            return isArrayOf(b_, b, a_, a,
                             [&](auto element, auto part) { return isSame(part, element); });
        if (formOf(left.kind) != formOf(right.kind))
            return false;
        if (left.kind == Kind::kArray && left.number != right.number)
            return false;
        return left.kind == Kind::kEnum || right.kind == Kind::kEnum || haveSameParts(a, b);
    }

private:
    /** Numbers of one size that differ in range only are of one form. */
    static Kind formOf(Kind kind) {
        switch (kind) {
            case Kind::kUnsigned:
            case Kind::kInt8:
            case Kind::kUint8:
            case Kind::kInt16:
            case Kind::kUint16:
            case Kind::kChar:
            case Kind::kBool:
            case Kind::kEnum:
                return Kind::kInt;
            case Kind::kUint64:
                return Kind::kInt64;
            default:
                return kind;
        }
    }

    /** A struct of one member is that member to whoever looks at bytes. */
    static unsigned int withoutWrapping(Shape const& shape, unsigned int at) {
        at = shape.resolve(at);
        while (shape.nodes[at].kind == Kind::kStruct && at + 1 < shape.nodes[at].end &&
               shape.nodes[at + 1].end == shape.nodes[at].end)
            at = shape.resolve(at + 1);
        return at;
    }

    template <class IsSame>
    static bool isArrayOf(Shape const& arrays, unsigned int array, Shape const& structs,
                          unsigned int whole, IsSame const& isSameElement) {
        std::uint32_t count = 0;
        for (unsigned int part = whole + 1; part < structs.nodes[whole].end;
             part = structs.nodes[part].end, ++count) {
            if (!isSameElement(array + 1, part))
                return false;
        }
        return count == arrays.nodes[array].number;
    }

    bool haveSameParts(unsigned int a, unsigned int b) {
        unsigned int left = a + 1;
        unsigned int right = b + 1;
        for (; left < a_.nodes[a].end && right < b_.nodes[b].end;
             left = a_.nodes[left].end, right = b_.nodes[right].end) {
            if (!isSame(left, right))
                return false;
        }
        return left == a_.nodes[a].end && right == b_.nodes[b].end;
    }

    Shape const& a_;
    Shape const& b_;
    std::set<std::pair<unsigned int, unsigned int>> compared_;
};

bool TreflectParameterType::hasFormOf(TreflectParameterType const& other) const {
    return isValid() && other.isValid() && Comparison(*shape_, *other.shape_).isSame(0, 0);
}
