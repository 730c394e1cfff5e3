// Two types of arguments and results: whether they have one form, and whether a value of the one is
// a value of the other.
#include <set>

#include "reflect/classes/ParameterTypeParts.h"

/** Compares the parts of two types. */
class TreflectParameterType::Comparison {
public:
    Comparison(Shape const& a, Shape const& b, Enums enums) : a_(a), b_(b), enums_(enums) {}

    /** Whether the types that begin at these nodes have one form. */
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
        if (enums_ == Enums::kListed && areDifferentEnums(left, right))
            return false;
        bool const isListed = enums_ == Enums::kListed && right.kind == Kind::kEnum;
        isWithin_ = isWithin_ && !isListed && isRangeWithin(left.kind, right.kind);
        return left.kind == Kind::kEnum || right.kind == Kind::kEnum || haveSameParts(a, b);
    }
    /** Whether every value of the first is one of the second, if they have one form. */
    bool isWithin() const { return isWithin_; }

    /** A struct of one member is that member to whoever looks at bytes. */
    static unsigned int withoutWrapping(Shape const& shape, unsigned int at) {
        at = shape.resolve(at);
        while (shape.nodes[at].kind == Kind::kStruct && at + 1 < shape.nodes[at].end &&
               shape.nodes[at + 1].end == shape.nodes[at].end)
            at = shape.resolve(at + 1);
        return at;
    }
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
    /** The numbers of 4 bytes that a kind has. */
    struct Range {
        std::int64_t lowest;
        std::int64_t highest;
    };
    static Range rangeOf(Kind kind) {
        switch (kind) {
            case Kind::kInt:
                return {INT32_MIN, INT32_MAX};
            case Kind::kInt8:
                return {INT8_MIN, INT8_MAX};
            case Kind::kInt16:
                return {INT16_MIN, INT16_MAX};
            case Kind::kUint8:
            case Kind::kChar:
                return {0, UINT8_MAX};
            case Kind::kUint16:
                return {0, UINT16_MAX};
            case Kind::kBool:
                return {0, 1};
            case Kind::kEnum:  // the bits of any number
                return {INT32_MIN, UINT32_MAX};
            default:
                return {0, UINT32_MAX};
        }
    }

private:
    static bool isRangeWithin(Kind a, Kind b) {
        if (formOf(a) != Kind::kInt)
            return a == b || (a != Kind::kInt64 && a != Kind::kUint64);
        bool const isOfAnyBits = b == Kind::kInt || b == Kind::kUnsigned || b == Kind::kEnum;
        if (a == Kind::kEnum && isOfAnyBits)
            return true;
        Range const inner = rangeOf(a);
        Range const outer = rangeOf(b);
        return inner.lowest >= outer.lowest && inner.highest <= outer.highest;
    }

    /** Whether both have a name, each another one. */
    bool areDifferentEnums(Node const& left, Node const& right) const {
        return left.kind == Kind::kEnum && right.kind == Kind::kEnum && left.number != 0 &&
               right.number != 0 && a_.labels[left.number] != b_.labels[right.number];
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
    Enums const enums_;
    std::set<std::pair<unsigned int, unsigned int>> compared_;
    bool isWithin_ = true;
};

bool TreflectParameterType::hasFormOf(TreflectParameterType const& other) const {
    return fitInto(other, Enums::kOpen) != Fit::kNever;
}

TreflectParameterType::Fit TreflectParameterType::fitInto(TreflectParameterType const& other,
                                                          Enums enums) const {
    if (!isValid() || !other.isValid())
        return Fit::kNever;
    Comparison comparison(*shape_, *other.shape_, enums);
    if (!comparison.isSame(root_, other.root_))
        return Fit::kNever;
    return comparison.isWithin() ? Fit::kAlways : Fit::kInRange;
}

/** Passes one value of a type, looking whether it is one of another type of the same form. */
class TreflectParameterType::Conversion : public Walk<Conversion> {
public:
    Conversion(Shape const& from, Shape const& to, ParameterBytes& bytes, Enums enums)
        : Walk(from, bytes), to_(to), enums_(enums) {}

private:
    friend class Walk;

    /** The types of the members of a struct or a map, one after the other; that of the elements of
     * anything else again and again. */
    class Members {
    public:
        Members(Shape const& shape, unsigned int whole)
            : shape_(shape), kind_(shape.nodes[whole].kind), at_(whole + 1) {}

        unsigned int next() {
            bool const differ = kind_ == Kind::kStruct || kind_ == Kind::kMap;
            return differ ? std::exchange(at_, shape_.nodes[at_].end) : at_;
        }

    private:
        Shape const& shape_;
        Kind const kind_;
        unsigned int at_;
    };

    void content(unsigned int a, unsigned int b) {
        a = Comparison::withoutWrapping(shape_, a);
        b = Comparison::withoutWrapping(to_, b);
        if (!container(a, b))
            plain(a, b);
    }

    void elements(unsigned int element, std::uint32_t count, unsigned int b) {
        for (Members to(to_, b); count > 0 && bytes_.complete(); --count)
            value(element, to.next());
    }

    void entries(unsigned int a, unsigned int b) {
        for (std::uint32_t left = bytes_.number(); left > 0 && bytes_.complete(); --left)
            parts(a, b);
    }

    void parts(unsigned int a, unsigned int b) {
        Members to(to_, b);
        for (unsigned int part = a + 1; part < shape_.nodes[a].end && bytes_.complete();
             part = shape_.nodes[part].end)
            value(part, to.next());
    }

    void alternative(unsigned int a, unsigned int b) {
        std::uint32_t const place = bytes_.number();
        unsigned int const from = shape_.partOf(a, place);
        unsigned int const to = to_.partOf(b, place);
        if (from == 0 || to == 0)
            bytes_.fail();
        else if (bytes_.complete())
            value(from, to);
    }

    void plain(unsigned int a, unsigned int b) {
        Kind const from = shape_.nodes[a].kind;
        if (enums_ == Enums::kListed && to_.nodes[b].kind == Kind::kEnum)
            enumerator(b);
        else if (Comparison::formOf(from) == Kind::kInt)
            number(from, to_.nodes[b].kind);
        else if (Comparison::formOf(from) == Kind::kInt64)
            longNumber(from != to_.nodes[b].kind);
        else
            Measure(shape_, bytes_, ParameterCheck::kAsReaders).value(a);
    }

    void enumerator(unsigned int b) {
        if (!to_.lists(b, bytes_.number()))
            bytes_.fail();
    }

    void number(Kind from, Kind to) {
        std::uint32_t const bits = bytes_.number();
        auto const asSigned = static_cast<std::int32_t>(bits);
        Comparison::Range const range = Comparison::rangeOf(to);
        bool const isSigned = Comparison::rangeOf(from).lowest < 0;
        bool fits = isSigned ? asSigned >= range.lowest && asSigned <= range.highest
                             : bits <= range.highest;
        if (from == Kind::kEnum)
            fits = fits || bits <= range.highest;
        if (!fits)
            bytes_.fail();
    }

    void longNumber(bool changesSign) {
        if (changesSign && bytes_.longNumber() >> 63 != 0)
            bytes_.fail();
        else if (!changesSign)
            bytes_.take(8);
    }

    Shape const& to_;
    Enums const enums_;
};

bool TreflectParameterType::isWithin(TreflectParameterType const& other, Enums enums,
                                     unsigned char const* bytes, std::size_t size) const {
    ParameterBytes value(bytes, size);
    Conversion(*shape_, *other.shape_, value, enums).value(root_, other.root_);
    return value.complete();
}

bool TreflectParameterType::isAtStartOf(unsigned char const* bytes, std::size_t size) const {
    ParameterBytes value(bytes, size);
    Measure(*shape_, value, ParameterCheck::kAsReaders).value(root_);
    return value.complete();
}

// ---- Elements -----------------------------------------------------------------------------------

TreflectParameterType TreflectParameterType::element() const {
    TreflectParameterType element("");
    if (!isValid())
        return element;
    unsigned int const whole = shape_->resolve(root_);
    Kind const kind = shape_->nodes[whole].kind;
    if (kind != Kind::kSequence && kind != Kind::kArray)
        return element;
    element.shape_ = shape_;
    element.root_ = whole + 1;
    return element;
}

std::optional<std::size_t> TreflectParameterType::placeOf(int index, unsigned char const* bytes,
                                                          std::size_t size) const {
    ParameterBytes value(bytes, size);
    unsigned int const whole = shape_->resolve(root_);
    Node const& node = shape_->nodes[whole];
    std::uint32_t const count = node.kind == Kind::kArray ? node.number : value.number();
    if (index < 0 || (value.complete() && static_cast<std::uint32_t>(index) >= count))
        return std::nullopt;
    Measure elements(*shape_, value, ParameterCheck::kAsReaders);
    for (int i = 0; i < index && value.complete(); ++i)
        elements.value(whole + 1);
    return value.complete() ? size - value.left() : size + 1;
}
