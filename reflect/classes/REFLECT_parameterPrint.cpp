// Values of arguments as text.
#include <charconv>
#include <cstdio>
#include <cstring>

#include "reflect/NamespaceId.h"
#include "reflect/classes/ParameterTypeParts.h"

class TreflectParameterType::Printer : public Walk<Printer> {
public:
    /** The name under which a handle on nothing travels. */
    static constexpr std::string_view kNoObject = "InvalidStub";

    using Walk::Walk;

    std::string takeText() { return std::move(text_); }

private:
    friend class Walk;

    void content(unsigned int at) {
        Node const& node = shape_.nodes[at];
        switch (node.kind) {
            case Kind::kInt64:
                text_ += std::to_string(static_cast<std::int64_t>(bytes_.longNumber()));
                break;
            case Kind::kUint64:
                text_ += std::to_string(bytes_.longNumber());
                break;
            case Kind::kFloat:
                real<float>(bytes_.number());
                break;
            case Kind::kDouble:
                real<double>(bytes_.longNumber());
                break;
            case Kind::kEnum:
                enumerator(at);
                break;
            case Kind::kString:
                quoted(bytes_.text());
                break;
            case Kind::kBytes:
            case Kind::kAny:
                hexadecimal("0x", bytes_.text());
                break;
            case Kind::kOid:
                oid();
                break;
            case Kind::kObject:
                object();
                break;
            case Kind::kVoid:
                text_ += "{}";
                break;
            default:
                if (!container(at))
                    word(node.kind);
        }
    }

    void word(Kind kind) {
        std::uint32_t const number = bytes_.number();
        if (!isInRange(kind, number))
            bytes_.fail();
        char const character = static_cast<char>(number);
        if (kind == Kind::kBool)
            text_ += number != 0 ? "true" : "false";
        else if (kind == Kind::kChar)
            quoted(std::string_view(&character, 1));
        else if (kind == Kind::kInt || kind == Kind::kInt8 || kind == Kind::kInt16)
            text_ += std::to_string(static_cast<std::int32_t>(number));
        else
            text_ += std::to_string(number);
    }

    template <class T, class Bits>
    void real(Bits bits) {
        T value;
        static_assert(sizeof value == sizeof bits);
        std::memcpy(&value, &bits, sizeof value);
        char digits[64];
        auto const [end, error] = std::to_chars(digits, digits + sizeof digits, value);
        text_.append(digits, error == std::errc() ? end : digits);
    }

    void enumerator(unsigned int at) {
        std::uint32_t const number = bytes_.number();
        for (unsigned int part = at + 1; part < shape_.nodes[at].end; ++part) {
            if (shape_.nodes[part].number == number) {
                text_ += shape_.labelOf(part);
                return;
            }
        }
        text_ += std::to_string(static_cast<std::int32_t>(number));
    }

    void quoted(std::string_view bytes) {
        text_ += '"';
        for (char const c : bytes)
            character(c);
        text_ += '"';
    }

    void character(char c) {
        static constexpr std::string_view kEscaped = "\"\\\n\r\t";
        static constexpr std::string_view kLetters = "\"\\nrt";
        std::size_t const known = kEscaped.find(c);
        if (known != std::string_view::npos)
            (text_ += '\\') += kLetters[known];
        else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            hexadecimal("\\x", std::string_view(&c, 1));
        else
            text_ += c;
    }

    void hexadecimal(char const* ahead, std::string_view bytes) {
        static constexpr char kDigits[] = "0123456789ABCDEF";
        text_ += ahead;
        for (char const c : bytes) {
            text_ += kDigits[static_cast<unsigned char>(c) >> 4];
            text_ += kDigits[c & 0xF];
        }
    }

    void oid() {
        quoted(bytes_.text());
        nameSpace(static_cast<std::int32_t>(bytes_.number()));
    }

    void nameSpace(std::int32_t ns) {
        if (ns == NSID_NODE)
            text_ += "@node";
        else if (ns != NSID_UNIT)
            (text_ += '@') += std::to_string(ns);
    }

    void object() {
        std::string_view const name = bytes_.text();
        auto const ns = static_cast<std::int32_t>(bytes_.number());
        std::uint32_t const internalId = bytes_.number();
        std::uint32_t const broker = bytes_.number();
        if (internalId == 0 && (name.empty() || name == kNoObject)) {
            quoted("");
            return;
        }
        if (!name.empty()) {
            quoted(name);
            nameSpace(ns);
            return;
        }
        char made[32];
        std::snprintf(made, sizeof made, "rmi_%X_%X", static_cast<unsigned int>(broker),
                      static_cast<unsigned int>(internalId));
        quoted(made);
    }

    void elements(unsigned int element, std::uint32_t count) {
        text_ += '[';
        for (std::uint32_t i = 0; i < count && bytes_.complete(); ++i) {
            if (i > 0)
                text_ += ", ";
            value(element);
        }
        text_ += ']';
    }

    void entries(unsigned int at) {
        text_ += '{';
        std::uint32_t const count = bytes_.number();
        for (std::uint32_t i = 0; i < count && bytes_.complete(); ++i) {
            if (i > 0)
                text_ += ", ";
            value(at + 1);
            text_ += ": ";
            value(shape_.nodes[at + 1].end);
        }
        text_ += '}';
    }

    void parts(unsigned int at) {
        text_ += '{';
        for (unsigned int part = at + 1; part < shape_.nodes[at].end && bytes_.complete();
             part = shape_.nodes[part].end) {
            if (part > at + 1)
                text_ += ", ";
            if (shape_.isLabelled(at))
                (text_ += shape_.labelOf(part)) += ": ";
            value(part);
        }
        text_ += '}';
    }

    void alternative(unsigned int at) {
        std::uint32_t const index = bytes_.number();
        unsigned int const part = shape_.partOf(at, index);
        if (part == 0) {
            bytes_.fail();
            return;
        }
        text_ += '{';
        text_ += shape_.isLabelled(at) ? shape_.labelOf(part) : std::to_string(index);
        text_ += ": ";
        value(part);
        text_ += '}';
    }

    std::string text_;
};

TipprmiResult<std::string> TreflectParameterType::print(TipprmiAny const& value) const {
    if (!isValid())
        return TipprmiFailure(TipprmiFailure::kUnreadable);
    ParameterBytes bytes(value);
    Printer printer(*shape_, bytes);
    printer.value(root_);
    if (!bytes.complete() || bytes.left() != 0)
        return TipprmiFailure(TipprmiFailure::kUnreadable);
    return printer.takeText();
}
