// Types of arguments and results: their names, where a value ends, and values as text.
#include <cstdint>
#include <cstdio>

#include "ipprmi/BigEndian.h"
#include "reflect/NamespaceId.h"
#include "reflect/classes/ParameterTypeParts.h"

// ---- Names -------------------------------------------------------------------------------------

bool TreflectParameterType::Compiler::compile(int depth) {
    if (depth > kMaxDepth)
        return false;
    return text_.accept('{') ? compileStruct(depth) : compileNamed(depth);
}

bool TreflectParameterType::Compiler::compileStruct(int depth) {
    std::size_t const whole = nodes_.size();
    nodes_.push_back({Kind::kStruct, 0});
    do {
        if (!compile(depth + 1))
            return false;
    } while (text_.accept(','));
    nodes_[whole].end = static_cast<unsigned int>(nodes_.size());
    return text_.accept('}');
}

bool TreflectParameterType::Compiler::compileNamed(int depth) {
    static constexpr std::pair<std::string_view, Kind> kNames[] = {
        {"int", Kind::kInt},       {"unsigned", Kind::kUnsigned}, {"bool", Kind::kBool},
        {"string", Kind::kString}, {"oid", Kind::kOid},           {"object", Kind::kObject},
        {"any", Kind::kAny},       {"sequence", Kind::kSequence}};
    std::string_view const name = text_.word();
    for (auto const& [known, kind] : kNames) {
        if (name != known)
            continue;
        std::size_t const whole = nodes_.size();
        nodes_.push_back({kind, 0});
        bool const complete = kind != Kind::kSequence ||
                              (text_.accept('<') && compile(depth + 1) && text_.accept('>'));
        nodes_[whole].end = static_cast<unsigned int>(nodes_.size());
        return complete;
    }
    return false;
}

TreflectParameterType::TreflectParameterType(std::string const& name) : name_(name) {
    TextCursor text(name_);
    Compiler compiler(text);
    if (compiler.compile() && text.atEnd())
        nodes_ = compiler.takeNodes();
}

// ---- Encoded values ----------------------------------------------------------------------------

namespace {

/** Bytes of an encoding that are still to be read. Reading stops for good where they end. */
class Bytes {
public:
    Bytes(unsigned char const* at, std::size_t size) : at_(at), left_(size) {}

    std::size_t left() const { return left_; }
    bool complete() const { return complete_; }

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

}  // namespace

/** Passes one value. Its effort is bounded by the bytes: every value has four or more. */
class TreflectParameterType::Measure {
public:
    Measure(std::vector<Node> const& nodes, Bytes& bytes) : nodes_(nodes), bytes_(bytes) {}

    void value(unsigned int node) {
        switch (nodes_[node].kind) {
            case Kind::kInt:
            case Kind::kUnsigned:
            case Kind::kBool:
                bytes_.take(4);
                break;
            case Kind::kString:
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
            case Kind::kSequence:
                for (std::uint32_t left = bytes_.number(); left > 0 && bytes_.complete(); --left)
                    value(node + 1);
                break;
            case Kind::kStruct:
                for (unsigned int part = node + 1; part < nodes_[node].end && bytes_.complete();
                     part = nodes_[part].end)
                    value(part);
                break;
        }
    }

private:
    std::vector<Node> const& nodes_;
    Bytes& bytes_;
};

bool TreflectParameterType::take(TipprmiStream& stream, TipprmiAny& value) const {
    if (!isValid())
        return false;
    int const unread = stream.getUnreadSize();
    unsigned char const* const from =
        unread > 0 ? stream.getDataPtr() + (stream.getDataSize() - unread) : nullptr;
    Bytes bytes(from, static_cast<std::size_t>(unread));
    Measure(nodes_, bytes).value(0);
    return bytes.complete() && value.takeBare(stream, unread - static_cast<int>(bytes.left()));
}

// ---- Values as text ----------------------------------------------------------------------------

class TreflectParameterType::Printer {
public:
    /** The name under which a handle on nothing travels. */
    static constexpr std::string_view kNoObject = "InvalidStub";

    Printer(std::vector<Node> const& nodes, Bytes& bytes) : nodes_(nodes), bytes_(bytes) {}

    void value(unsigned int node) {
        switch (nodes_[node].kind) {
            case Kind::kInt:
                text_ += std::to_string(static_cast<std::int32_t>(bytes_.number()));
                break;
            case Kind::kUnsigned:
                text_ += std::to_string(bytes_.number());
                break;
            case Kind::kBool:
                text_ += bytes_.number() != 0 ? "true" : "false";
                break;
            case Kind::kString:
                quoted(bytes_.text());
                break;
            case Kind::kOid:
                oid();
                break;
            case Kind::kObject:
                object();
                break;
            case Kind::kAny:
                any(bytes_.text());
                break;
            case Kind::kSequence:
                sequence(node + 1);
                break;
            case Kind::kStruct:
                parts(node);
                break;
        }
    }
    std::string takeText() { return std::move(text_); }

private:
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

    void any(std::string_view content) { hexadecimal("0x", content); }

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

    void sequence(unsigned int element) {
        text_ += '[';
        std::uint32_t const count = bytes_.number();
        for (std::uint32_t i = 0; i < count && bytes_.complete(); ++i) {
            if (i > 0)
                text_ += ", ";
            value(element);
        }
        text_ += ']';
    }

    void parts(unsigned int node) {
        text_ += '{';
        for (unsigned int part = node + 1; part < nodes_[node].end; part = nodes_[part].end) {
            if (part > node + 1)
                text_ += ", ";
            value(part);
        }
        text_ += '}';
    }

    std::vector<Node> const& nodes_;
    Bytes& bytes_;
    std::string text_;
};

TipprmiResult<std::string> TreflectParameterType::print(TipprmiAny const& value) const {
    Bytes bytes(value.getDataPtr(), static_cast<std::size_t>(value.getDataSize()));
    if (!isValid())
        return TipprmiFailure(TipprmiFailure::kUnreadable);
    Printer printer(nodes_, bytes);
    printer.value(0);
    if (!bytes.complete() || bytes.left() != 0)
        return TipprmiFailure(TipprmiFailure::kUnreadable);
    return printer.takeText();
}
