// Values of arguments as people write them.
#include <charconv>
#include <climits>
#include <cstdint>
#include <optional>

#include "ipprmi/BigEndian.h"
#include "reflect/TreflectObject.h"
#include "reflect/classes/ParameterTypeParts.h"

namespace {

/** A number, or nothing when `word` is none or does not lie between `lowest` and `highest`. */
std::optional<std::int64_t> numberIn(std::string_view word, std::int64_t lowest,
                                     std::int64_t highest) {
    bool const negative = !word.empty() && word.front() == '-';
    if (negative)
        word.remove_prefix(1);
    bool const hexadecimal =
        word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    if (hexadecimal)
        word.remove_prefix(2);
    std::uint64_t magnitude = 0;
    char const* const end = word.data() + word.size();
    auto const [last, error] = std::from_chars(word.data(), end, magnitude, hexadecimal ? 16 : 10);
    if (word.empty() || error != std::errc() || last != end || magnitude > UINT_MAX)
        return std::nullopt;
    auto const number = static_cast<std::int64_t>(magnitude) * (negative ? -1 : 1);
    if (number < lowest || number > highest)
        return std::nullopt;
    return number;
}

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
    auto const number = numberIn(word, INT_MIN, INT_MAX);
    if (!number)
        return std::nullopt;
    return static_cast<NamespaceId>(*number);
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
    bool value(std::vector<Node> const& nodes, unsigned int node) {
        // Only anys within anys get there.
        if (level_ >= 2 * kMaxDepth)
            return false;
        ++level_;
        bool const read = readValue(nodes, node);
        --level_;
        return read;
    }
    std::string const& bytes() const { return bytes_; }

private:
    bool readValue(std::vector<Node> const& nodes, unsigned int node) {
        switch (nodes[node].kind) {
            case Kind::kInt:
                return number(INT_MIN, INT_MAX);
            case Kind::kUnsigned:
                return number(0, UINT_MAX);
            case Kind::kBool:
                return truth();
            case Kind::kString:
                return string();
            case Kind::kOid:
                return oid();
            case Kind::kObject:
                return object();
            case Kind::kAny:
                return any();
            case Kind::kSequence:
                return sequence(nodes, node + 1);
            case Kind::kStruct:
                return parts(nodes, node);
        }
        return false;
    }

    bool number(std::int64_t lowest, std::int64_t highest) {
        auto const found = numberIn(text_.word(), lowest, highest);
        if (found)
            put(static_cast<std::uint32_t>(*found));
        return found.has_value();
    }

    bool truth() {
        std::string_view const word = text_.word();
        bool const yes = word == "true" || word == "1";
        put(yes ? 1 : 0);
        return yes || word == "false" || word == "0";
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
        std::size_t const start = bytes_.size();
        put(0u);
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
        std::size_t const length = bytes_.size() - start - 4;
        ipprmi::storeBigEndian(reinterpret_cast<unsigned char*>(bytes_.data()) + start,
                               static_cast<std::uint32_t>(length));
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
        Compiler type(text_);
        return type.compile() && text_.accept('(') && value(type.takeNodes(), 0) &&
               text_.accept(')');
    }

    bool sequence(std::vector<Node> const& nodes, unsigned int element) {
        std::size_t const start = bytes_.size();
        put(0u);
        if (!text_.accept('['))
            return false;
        std::uint32_t count = 0;
        if (!text_.accept(']')) {
            do {
                if (!value(nodes, element))
                    return false;
                ++count;
            } while (text_.accept(','));
            if (!text_.accept(']'))
                return false;
        }
        ipprmi::storeBigEndian(reinterpret_cast<unsigned char*>(bytes_.data()) + start, count);
        return true;
    }

    bool parts(std::vector<Node> const& nodes, unsigned int node) {
        if (!text_.accept('{'))
            return false;
        for (unsigned int part = node + 1; part < nodes[node].end; part = nodes[part].end) {
            bool const isFirst = part == node + 1;
            if ((!isFirst && !text_.accept(',')) || !value(nodes, part))
                return false;
        }
        return text_.accept('}');
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
        std::string_view const text = text_.upTo(isWhole ? "" : ",]})");
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

    TextCursor& text_;
    std::string bytes_;
    int level_ = 0;
};

bool TreflectParameterType::parse(std::string const& text, TipprmiAny& value) const {
    if (!isValid())
        return false;
    TextCursor cursor(text);
    Parser parser(cursor);
    if (!parser.value(nodes_, 0) || !cursor.atEnd() || parser.bytes().size() > INT_MAX)
        return false;
    return value.setData(parser.bytes().data(), static_cast<int>(parser.bytes().size()));
}
