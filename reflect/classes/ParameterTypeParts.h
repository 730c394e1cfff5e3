// What the files of TreflectParameterType share.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "ipprmi/BigEndian.h"
#include "reflect/TreflectParameterType.h"
#include "reflect/classes/TextCursor.h"

enum class TreflectParameterType::Kind : unsigned char {
    // Numbers of 4 bytes.
    kInt,
    kUnsigned,
    kInt8,
    kUint8,
    kInt16,
    kUint16,
    kChar,
    kBool,
    kEnum,  // parts: its enumerators; `number` is the index of its name, 0 without
    kFloat,
    // Numbers of 8 bytes.
    kInt64,
    kUint64,
    kDouble,
    // A length, and as many bytes.
    kString,
    kBytes,
    kAny,

    kOid,
    kObject,
    kVoid,
    kSequence,
    kOptional,
    kArray,  // `number` elements
    kMap,    // parts: key, value
    kStruct,
    kUnion,
    kEnumerator,  // its value is `number`; only within kEnum
    kReference    // to the type that begins at the node `number`, which is none
                  // itself
};

/** A type, or a part of one. */
struct TreflectParameterType::Node {
    Kind kind;
    unsigned int end = 0;    // index behind its last part
    unsigned int label = 0;  // index of the name that a member or an enumerator has; 0 without
    std::uint32_t number = 0;
};

/** The type and its parts in the order of the name, a whole ahead of its parts; behind them in the
 * same way the types that it refers to. */
struct TreflectParameterType::Shape {
    std::vector<Node> nodes;
    std::vector<std::string> labels{""};

    /** The node that describes the type which begins at `at`. */
    unsigned int resolve(unsigned int at) const {
        return nodes[at].kind == Kind::kReference ? nodes[at].number : at;
    }
    /** The part of a whole that has this place among its parts; 0 when it has not so many. */
    unsigned int partOf(unsigned int whole, std::uint32_t place) const;
    /** The part that has this name; 0 without one. */
    unsigned int partNamed(unsigned int whole, std::string_view name) const;
    /** Whether an enum has an enumerator of this number. */
    bool lists(unsigned int whole, std::uint32_t value) const;
    std::string const& labelOf(unsigned int at) const { return labels[nodes[at].label]; }
    /** Whether the parts of a whole have names. */
    bool isLabelled(unsigned int whole) const {
        return whole + 1 < nodes[whole].end && nodes[whole + 1].label != 0;
    }
};

/** A whole number, of which the bits are answered; nothing when `word` is none, or does not lie
 * between `lowest` and `highest`. */
std::optional<std::uint64_t> wholeNumberIn(std::string_view word, std::int64_t lowest,
                                           std::uint64_t highest);

/** Bytes of an encoding that are still to be read. Reading stops for good where they end. */
class ParameterBytes {
public:
    ParameterBytes(unsigned char const* at, std::size_t size) : at_(at), left_(size) {}
    explicit ParameterBytes(TipprmiAny const& value)
        : ParameterBytes(value.getDataPtr(), static_cast<std::size_t>(value.getDataSize())) {}

    std::size_t left() const { return left_; }
    bool complete() const { return complete_; }
    /** Says that what was read is no value. */
    void fail() { complete_ = false; }

    unsigned char const* take(std::size_t n) {
        complete_ = complete_ && n <= left_;
        if (!complete_)
            return nullptr;
        unsigned char const* const taken = at_;
        at_ += n;
        left_ -= n;
        return taken;
    }
    std::uint32_t number() {
        unsigned char const* const taken = take(4);
        return taken ? ipprmi::loadBigEndian(taken) : 0;
    }
    std::uint64_t longNumber() {
        std::uint64_t const high = number();
        return high << 32 | number();
    }
    /** A length, then as many bytes: a text or a nested value. A negative length is none. */
    std::string_view text() {
        auto const length = static_cast<std::int32_t>(number());
        unsigned char const* const taken = take(length > 0 ? static_cast<std::size_t>(length) : 0);
        if (!taken || length < 1)
            return {};
        return {reinterpret_cast<char const*>(taken), static_cast<std::size_t>(length)};
    }

private:
    unsigned char const* at_;
    std::size_t left_;
    bool complete_ = true;
};

/**
 * Goes through an encoded value and those within it. `Reader`, which is derived from it, does what
 * is to be done: with a value in `content`, with those within it in `elements`, `entries`, `parts`
 * and `alternative`, which call `value` for each. Who looks at two types at once gets the node of
 * the other as well, as he gave it to `value`.
 */
template <class Reader>
class TreflectParameterType::Walk {
public:
    Walk(Shape const& shape, ParameterBytes& bytes) : shape_(shape), bytes_(bytes) {}

    /** The value whose type begins at the node `at`. */
    template <class... Other>
    void value(unsigned int at, Other... other) {
        if (++level_ > kMaxValueDepth)
            bytes_.fail();
        else
            reader().content(shape_.resolve(at), other...);
        --level_;
    }

protected:
    /** A value that holds others; false when it is another one, which is still to be read. */
    template <class... Other>
    bool container(unsigned int at, Other... other) {
        Node const& node = shape_.nodes[at];
        switch (node.kind) {
            case Kind::kSequence:
                reader().elements(at + 1, bytes_.number(), other...);
                return true;
            case Kind::kOptional:
                reader().elements(at + 1, atMostOne(), other...);
                return true;
            case Kind::kArray:
                reader().elements(at + 1, node.number, other...);
                return true;
            case Kind::kMap:
                reader().entries(at, other...);
                return true;
            case Kind::kStruct:
                reader().parts(at, other...);
                return true;
            case Kind::kUnion:
                reader().alternative(at, other...);
                return true;
            default:
                return false;
        }
    }

    Shape const& shape_;
    ParameterBytes& bytes_;

private:
    Reader& reader() { return static_cast<Reader&>(*this); }
    std::uint32_t atMostOne() {
        std::uint32_t const count = bytes_.number();
        if (count > 1)
            bytes_.fail();
        return count;
    }

    int level_ = 0;
};

/** How strictly values that arrive are looked at. */
enum class ParameterCheck { kAsReaders, kAsWriters };

/** Passes one value. Its effort is bounded by the bytes: what may be repeated has some. */
class TreflectParameterType::Measure : public Walk<Measure> {
public:
    Measure(Shape const& shape, ParameterBytes& bytes, ParameterCheck check)
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
        bool const isOddBool =
            kind == Kind::kBool && number > 1 && check_ == ParameterCheck::kAsWriters;
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

    ParameterCheck const check_;
};

/** Makes the shape of a type from its name. */
class TreflectParameterType::Compiler {
public:
    Compiler(TextCursor& text, TreflectTypes const& types) : text_(&text), types_(types) {}

    /** Reads one type, and a name behind it if there is one; false when there is none. */
    bool compile();
    std::string const& label() const { return label_; }
    std::shared_ptr<Shape const> shape() {
        return std::make_shared<Shape const>(std::move(shape_));
    }

    /** Reads the text of a type by itself, whatever it refers to; and the name of that type. */
    bool readDefinition() { return type(1); }
    std::string definedFirst() const;

private:
    /** What is known of the least size of a type. */
    enum : std::uint32_t { kUnknown = 0xFFFFFFFF, kBeingMeasured = 0xFFFFFFFE, kMost = 1u << 30 };
    /** Bounds the effort, and the text, for each few bytes of a value. */
    static constexpr std::size_t kMostNodes = 16384;
    static constexpr std::size_t kLongestLabel = 255;

    static std::optional<Kind> builtIn(std::string_view name);
    bool type(int depth);
    bool content(Kind kind, std::size_t whole, int depth);
    bool arrayLength(std::size_t whole);
    bool definition(Kind kind, std::size_t whole, int depth);
    bool members(std::size_t whole, int depth);
    bool enumerators();
    bool number(std::uint32_t& value);
    std::string_view optionalLabel();
    unsigned int labelled(std::string_view name);
    bool resolveReferences();
    bool define(std::string const& name);
    bool isSound();
    bool hasBytesWhereNeeded(unsigned int at) const;
    std::uint32_t leastSize(unsigned int at, int depth);
    std::uint64_t leastSizeOfWhole(unsigned int at, int depth);

    TextCursor* text_;
    TreflectTypes const& types_;
    Shape shape_;
    std::string label_;
    std::map<std::string, unsigned int, std::less<>> defined_;
    std::vector<std::pair<unsigned int, std::string>> references_;
    std::vector<std::uint32_t> leastSizes_;  // of the nodes; above kMost: see above
    bool sound_ = true;
};
