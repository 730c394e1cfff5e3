// Values of arguments as people write them.
#include <charconv>
#include <climits>
#include <cstdint>
#include <optional>
#include <vector>

#include "reflect/TreflectObject.h"
#include "reflect/classes/ParameterTypeParts.h"

namespace {

/** The value of two hexadecimal digits. */
std::optional<char> byteOf(std::string_view digits) {
    unsigned char value = 0;
    char const* const end = digits.data() + digits.size();
    auto const [last, error] = std::from_chars(digits.data(), end, value, 16);
    if (digits.size() != 2 || error != std::errc() || last != end)
        return std::nullopt;
    return static_cast<char>(value);
}

std::optional<NamespaceId> namespaceOf(std::string_view word) {
    if (word == "unit")
        return NSID_UNIT;
    if (word == "node")
        return NSID_NODE;
    auto const number = wholeNumberIn(word, INT_MIN, INT_MAX);
    if (!number)
        return std::nullopt;
    return static_cast<NamespaceId>(static_cast<std::int32_t>(*number));
}

/** What an escape in quotes stands for. */
std::optional<char> escaped(TextCursor& text) {
    char const letter = text.next();
    switch (letter) {
        case '"':
        case '\\':
            return letter;
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        case 'x':
            return byteOf(text.take(2));
        default:
            return std::nullopt;
    }
}

}  // namespace

/** Appends the encodings of values to a text of bytes. */
class TreflectParameterType::Parser {
public:
    explicit Parser(TextCursor& text) : text_(text) {}

    /** Reads one value; false when there is none of this type, and then the bytes are of no use. */
    bool value(Shape const& shape, unsigned int at) {
        if (level_ >= kMaxValueDepth)
            return false;
        ++level_;
        bool const read = content(shape, shape.resolve(at));
        --level_;
        return read;
    }
    std::string const& bytes() const { return bytes_; }

private:
    bool content(Shape const& shape, unsigned int at) {
        switch (shape.nodes[at].kind) {
            case Kind::kInt64:
                return longNumber(INT64_MIN, INT64_MAX);
            case Kind::kUint64:
                return longNumber(0, UINT64_MAX);
            case Kind::kFloat:
                return real<float>();
            case Kind::kDouble:
                return real<double>();
            case Kind::kBool:
                return truth();
            case Kind::kChar:
                return character();
            case Kind::kEnum:
                return enumerator(shape, at);
            case Kind::kString:
                return string();
            case Kind::kBytes:
                return hexadecimalText();
            case Kind::kOid:
                return oid();
            case Kind::kObject:
                return object();
            case Kind::kAny:
                return any();
            case Kind::kVoid:
                return text_.accept('{') && text_.accept('}');
            default:
                return container(shape, at);
        }
    }

    bool container(Shape const& shape, unsigned int at) {
        Node const& node = shape.nodes[at];
        switch (node.kind) {
            case Kind::kSequence:
                return sequence(shape, at + 1, UINT_MAX);
            case Kind::kOptional:
                return sequence(shape, at + 1, 1);
            case Kind::kArray: {
                std::uint32_t count = 0;
                return elements(shape, at + 1, count) && count == node.number;
            }
            case Kind::kMap:
                return map(shape, at);
            case Kind::kStruct:
                return parts(shape, at);
            case Kind::kUnion:
                return alternative(shape, at);
            default:
                return number(node.kind);
        }
    }

    bool number(Kind kind) {
        bool const isSigned = kind == Kind::kInt || kind == Kind::kInt8 || kind == Kind::kInt16;
        auto const found = isSigned ? wholeNumberIn(text_.word(), INT_MIN, INT_MAX)
                                    : wholeNumberIn(text_.word(), 0, UINT_MAX);
        auto const word = static_cast<std::uint32_t>(found.value_or(0));
        put(word);
        return found && isInRange(kind, word);
    }

    bool longNumber(std::int64_t lowest, std::uint64_t highest) {
        auto const found = wholeNumberIn(text_.word(), lowest, highest);
        putLong(found.value_or(0));
        return found.has_value();
    }

    template <class T>
    bool real() {
        std::string_view const word = text_.real();
        T value = 0;
        char const* const end = word.data() + word.size();
        auto const [last, error] = std::from_chars(word.data(), end, value);
        unsigned char encoded[sizeof value];
        tipprmi::store(encoded, value);
        bytes_.append(reinterpret_cast<char const*>(encoded), sizeof encoded);
        return !word.empty() && error == std::errc() && last == end;
    }

    bool truth() {
        std::string_view const word = text_.word();
        bool const yes = word == "true" || word == "1";
        put(yes ? 1 : 0);
        return yes || word == "false" || word == "0";
    }

    bool character() {
        auto const found = text_.accept('"') ? quoted() : bare();
        if (!found || found->size() != 1)
            return false;
        put(static_cast<unsigned char>(found->front()));
        return true;
    }

    bool enumerator(Shape const& shape, unsigned int at) {
        std::string_view const word = text_.word();
        for (unsigned int part = at + 1; part < shape.nodes[at].end; ++part) {
            if (shape.labelOf(part) == word) {
                put(shape.nodes[part].number);
                return true;
            }
        }
        auto const found = wholeNumberIn(word, INT_MIN, UINT_MAX);
        put(static_cast<std::uint32_t>(found.value_or(0)));
        return found.has_value();
    }

    bool string() {
        auto const found = text_.accept('"') ? quoted() : bare();
        if (found)
            put(*found);
        return found.has_value();
    }

    bool oid() {
        auto const found = identifier();
        if (!found)
            return false;
        put(std::string_view(found->getIdString() ? found->getIdString() : ""));
        put(static_cast<std::uint32_t>(found->getNamespaceId()));
        return true;
    }

    bool object() {
        auto const found = identifier();
        if (!found)
            return false;
        TreflectObject const handle(*found);
        if (found->getIdString() && !handle.isConnected())
            return false;
        TipprmiStream location(1);
        location << handle;
        bytes_.append(reinterpret_cast<char const*>(location.getDataPtr()),
                      static_cast<std::size_t>(location.getDataSize()));
        return true;
    }

    bool any() {
        std::size_t const start = beginLength();
        TextCursor const ahead = text_;
        std::string_view const word = text_.word();
        if (word.substr(0, 2) == "0x") {
            if (!hexadecimal(word.substr(2)))
                return false;
        } else {
            text_ = ahead;
            if (!typedValue())
                return false;
        }
        return endLength(start);
    }

    bool hexadecimalText() {
        std::size_t const start = beginLength();
        std::string_view const word = text_.word();
        return word.substr(0, 2) == "0x" && hexadecimal(word.substr(2)) && endLength(start);
    }

    std::size_t beginLength() {
        put(0u);
        return bytes_.size();
    }
    bool endLength(std::size_t start) {
        std::size_t const length = bytes_.size() - start;
        putAt(start - 4, static_cast<std::uint32_t>(length));
        return length <= INT_MAX;
    }

    bool hexadecimal(std::string_view digits) {
        for (; !digits.empty(); digits.remove_prefix(2)) {
            auto const byte = byteOf(digits.substr(0, 2));
            if (!byte)
                return false;
            bytes_ += *byte;
        }
        return true;
    }

    bool typedValue() {
        TreflectTypes const none;
        Compiler type(text_, none);
        return type.compile() && text_.accept('(') && value(*type.shape(), 0) && text_.accept(')');
    }

    bool sequence(Shape const& shape, unsigned int element, std::uint32_t most) {
        std::size_t const start = bytes_.size();
        put(0u);
        std::uint32_t count = 0;
        bool const read = elements(shape, element, count);
        putAt(start, count);
        return read && count <= most;
    }

    bool elements(Shape const& shape, unsigned int element, std::uint32_t& count) {
        if (!text_.accept('['))
            return false;
        if (text_.accept(']'))
            return true;
        do {
            if (!value(shape, element))
                return false;
            ++count;
        } while (text_.accept(','));
        return text_.accept(']');
    }

    bool map(Shape const& shape, unsigned int at) {
        std::size_t const start = bytes_.size();
        put(0u);
        if (!text_.accept('{'))
            return false;
        if (text_.accept('}'))
            return true;
        std::uint32_t count = 0;
        do {
            bool const outer = std::exchange(isKey_, true);
            bool const hasKey = value(shape, at + 1);
            isKey_ = outer;
            if (!hasKey || !text_.accept(':') || !value(shape, shape.nodes[at + 1].end))
                return false;
            ++count;
        } while (text_.accept(','));
        putAt(start, count);
        return text_.accept('}');
    }

    bool parts(Shape const& shape, unsigned int at) {
        if (!text_.accept('{'))
            return false;
        unsigned int const end = shape.nodes[at].end;
        if (memberAhead(shape, at) != 0)
            return namedParts(shape, at);
        for (unsigned int part = at + 1; part < end; part = shape.nodes[part].end) {
            bool const isFirst = part == at + 1;
            if ((!isFirst && !text_.accept(',')) || !value(shape, part))
                return false;
        }
        return text_.accept('}');
    }

    /** Members by their names, in any order. */
    bool namedParts(Shape const& shape, unsigned int at) {
        unsigned int const end = shape.nodes[at].end;
        std::map<unsigned int, std::string> encoded;
        do {
            unsigned int const part = memberAhead(shape, at);
            if (part == 0 || encoded.count(part) != 0)
                return false;
            text_.identifier();
            text_.accept(':');
            std::string outer = std::exchange(bytes_, std::string());
            bool const read = value(shape, part);
            encoded[part] = std::exchange(bytes_, std::move(outer));
            if (!read)
                return false;
        } while (text_.accept(','));
        for (unsigned int part = at + 1; part < end; part = shape.nodes[part].end) {
            auto const found = encoded.find(part);
            if (found == encoded.end())
                return false;
            bytes_ += found->second;
        }
        return text_.accept('}');
    }

    /** The member whose name and : are next; 0 without one. Nothing is passed. */
    unsigned int memberAhead(Shape const& shape, unsigned int at) const {
        TextCursor ahead = text_;
        std::string_view const name = ahead.identifier();
        return ahead.accept(':') ? shape.partNamed(at, name) : 0;
    }

    bool alternative(Shape const& shape, unsigned int at) {
        if (!text_.accept('{'))
            return false;
        std::uint32_t index = 0;
        if (shape.isLabelled(at)) {
            unsigned int const named = shape.partNamed(at, text_.identifier());
            for (unsigned int part = at + 1; part < named; part = shape.nodes[part].end)
                ++index;
            if (named == 0)
                return false;
        } else {
            auto const found = wholeNumberIn(text_.word(), 0, UINT_MAX);
            if (!found)
                return false;
            index = static_cast<std::uint32_t>(*found);
        }
        put(index);
        unsigned int const part = shape.partOf(at, index);
        return part != 0 && text_.accept(':') && value(shape, part) && text_.accept('}');
    }

    /** Reads a text up to the quotes that end it. */
    std::optional<std::string> quoted() {
        std::string text;
        while (!text_.empty()) {
            char const c = text_.next();
            if (c == '"')
                return text;
            std::optional<char> const meant = c == '\\' ? escaped(text_) : c;
            if (!meant)
                return std::nullopt;
            text += *meant;
        }
        return std::nullopt;
    }

    std::optional<std::string> bare() {
        bool const isWhole = level_ == 1;
        std::string_view const text = text_.upTo(isWhole ? "" : isKey_ ? ",]}):" : ",]})");
        if (text.empty() && !isWhole)
            return std::nullopt;
        return std::string(text);
    }

    std::optional<TipprmiOID> identifier() {
        std::optional<std::string> name;
        std::optional<NamespaceId> ns = NSID_UNIT;
        if (text_.accept('"')) {
            name = quoted();
            if (name && text_.accept('@'))
                ns = namespaceOf(text_.word());
        } else {
            name = bare();
            std::size_t const at = name ? name->rfind('@') : std::string::npos;
            if (at != std::string::npos) {
                if (auto const written = namespaceOf(std::string_view(*name).substr(at + 1))) {
                    ns = written;
                    name->resize(at);
                }
            }
        }
        // Identifiers are texts with a NUL behind them.
        if (!name || !ns || name->find('\0') != std::string::npos)
            return std::nullopt;
        return TipprmiOID(*name, *ns);
    }

    void put(std::uint32_t number) {
        unsigned char encoded[4];
        ipprmi::storeBigEndian(encoded, number);
        bytes_.append(reinterpret_cast<char const*>(encoded), sizeof encoded);
    }
    void put(std::string_view text) {
        put(static_cast<std::uint32_t>(text.size()));
        bytes_ += text;
    }

    void putLong(std::uint64_t number) {
        put(static_cast<std::uint32_t>(number >> 32));
        put(static_cast<std::uint32_t>(number));
    }
    void putAt(std::size_t at, std::uint32_t number) {
        ipprmi::storeBigEndian(reinterpret_cast<unsigned char*>(bytes_.data()) + at, number);
    }

    TextCursor& text_;
    std::string bytes_;
    int level_ = 0;
    bool isKey_ = false;  // of a map
};

bool TreflectParameterType::parse(std::string const& text, TipprmiAny& value) const {
    if (!isValid())
        return false;
    TextCursor cursor(text);
    Parser parser(cursor);
    if (!parser.value(*shape_, root_) || !cursor.atEnd() || parser.bytes().size() > INT_MAX)
        return false;
    return value.setData(parser.bytes().data(), static_cast<int>(parser.bytes().size()));
}
