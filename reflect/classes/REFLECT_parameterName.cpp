// Names of types: what they are made of.
#include <algorithm>
#include <charconv>
#include <set>

#include "reflect/classes/ParameterTypeParts.h"

namespace {

/** Arrays of more elements fit into no message. */
constexpr std::uint32_t kLongestArray = 16u << 20;

}  // namespace

std::optional<std::uint64_t> wholeNumberIn(std::string_view word, std::int64_t lowest,
                                           std::uint64_t highest) {
    bool const isNegative = !word.empty() && word.front() == '-';
    if (isNegative)
        word.remove_prefix(1);
    bool const isHexadecimal =
        word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    if (isHexadecimal)
        word.remove_prefix(2);
    std::uint64_t magnitude = 0;
    char const* const end = word.data() + word.size();
    auto const [last, error] =
        std::from_chars(word.data(), end, magnitude, isHexadecimal ? 16 : 10);
    if (word.empty() || error != std::errc() || last != end)
        return std::nullopt;
    std::uint64_t const most = isNegative ? 0 - static_cast<std::uint64_t>(lowest) : highest;
    if (magnitude > most)
        return std::nullopt;
    return isNegative ? 0 - magnitude : magnitude;
}

unsigned int TreflectParameterType::Shape::partOf(unsigned int whole, std::uint32_t place) const {
    unsigned int part = whole + 1;
    for (; place > 0 && part < nodes[whole].end; --place)
        part = nodes[part].end;
    return part < nodes[whole].end ? part : 0;
}

unsigned int TreflectParameterType::Shape::partNamed(unsigned int whole,
                                                     std::string_view name) const {
    if (name.empty())
        return 0;
    for (unsigned int part = whole + 1; part < nodes[whole].end; part = nodes[part].end) {
        if (labelOf(part) == name)
            return part;
    }
    return 0;
}

bool TreflectParameterType::Shape::lists(unsigned int whole, std::uint32_t value) const {
    for (unsigned int part = whole + 1; part < nodes[whole].end; ++part) {
        if (nodes[part].number == value)
            return true;
    }
    return false;
}

// ---- The grammar --------------------------------------------------------------------------------

bool TreflectParameterType::Compiler::compile() {
    if (!type(1))
        return false;
    label_ = optionalLabel();
    return resolveReferences() && isSound();
}

std::optional<TreflectParameterType::Kind> TreflectParameterType::Compiler::builtIn(
    std::string_view name) {
    static constexpr std::pair<std::string_view, Kind> kNames[] = {
        {"int", Kind::kInt},           {"unsigned", Kind::kUnsigned}, {"bool", Kind::kBool},
        {"string", Kind::kString},     {"oid", Kind::kOid},           {"object", Kind::kObject},
        {"any", Kind::kAny},           {"sequence", Kind::kSequence}, {"int8", Kind::kInt8},
        {"uint8", Kind::kUint8},       {"int16", Kind::kInt16},       {"uint16", Kind::kUint16},
        {"int32", Kind::kInt},         {"uint32", Kind::kUnsigned},   {"int64", Kind::kInt64},
        {"uint64", Kind::kUint64},     {"float", Kind::kFloat},       {"double", Kind::kDouble},
        {"char", Kind::kChar},         {"bytes", Kind::kBytes},       {"void", Kind::kVoid},
        {"optional", Kind::kOptional}, {"array", Kind::kArray},       {"map", Kind::kMap},
        {"struct", Kind::kStruct},     {"union", Kind::kUnion},       {"enum", Kind::kEnum}};
    for (auto const& [known, kind] : kNames) {
        if (name == known)
            return kind;
    }
    return std::nullopt;
}

bool TreflectParameterType::Compiler::type(int depth) {
    if (depth > kMaxDepth || shape_.nodes.size() >= kMostNodes)
        return false;
    std::size_t const whole = shape_.nodes.size();
    bool complete = false;
    if (text_->accept('{')) {
        shape_.nodes.push_back({Kind::kStruct});
        complete = members(whole, depth);
    } else {
        std::string_view const name = text_->identifier();
        std::optional<Kind> const kind = builtIn(name);
        shape_.nodes.push_back({kind.value_or(Kind::kReference)});
        if (!kind)
            references_.emplace_back(whole, name);
        complete = kind ? content(*kind, whole, depth) : !name.empty();
    }
    shape_.nodes[whole].end = static_cast<unsigned int>(shape_.nodes.size());
    return complete;
}

bool TreflectParameterType::Compiler::content(Kind kind, std::size_t whole, int depth) {
    switch (kind) {
        case Kind::kSequence:
        case Kind::kOptional:
            return text_->accept('<') && type(depth + 1) && text_->accept('>');
        case Kind::kArray:
            return text_->accept('<') && type(depth + 1) && text_->accept(',') &&
                   arrayLength(whole) && text_->accept('>');
        case Kind::kMap:
            return text_->accept('<') && type(depth + 1) && text_->accept(',') && type(depth + 1) &&
                   text_->accept('>');
        case Kind::kStruct:
        case Kind::kUnion:
        case Kind::kEnum:
            return definition(kind, whole, depth);
        default:
            return true;
    }
}

bool TreflectParameterType::Compiler::arrayLength(std::size_t whole) {
    std::string_view const word = text_->word();
    std::uint32_t& length = shape_.nodes[whole].number;
    auto const [last, error] = std::from_chars(word.data(), word.data() + word.size(), length);
    return error == std::errc() && last == word.data() + word.size() && length >= 1 &&
           length <= kLongestArray;
}

bool TreflectParameterType::Compiler::definition(Kind kind, std::size_t whole, int depth) {
    std::string_view const name = text_->identifier();
    if (builtIn(name) || !text_->accept('{'))
        return false;
    if (!name.empty())
        defined_.insert_or_assign(std::string(name), static_cast<unsigned int>(whole));
    if (kind == Kind::kEnum) {
        shape_.nodes[whole].number = labelled(name);
        return enumerators();
    }
    return (kind == Kind::kStruct && text_->accept('}')) || members(whole, depth);
}

bool TreflectParameterType::Compiler::members(std::size_t whole, int depth) {
    std::set<std::string_view> labels;
    std::size_t unlabelled = 0;
    do {
        std::size_t const member = shape_.nodes.size();
        if (!type(depth + 1))
            return false;
        std::string_view const label = optionalLabel();
        if (label.empty())
            ++unlabelled;
        else if (!labels.insert(label).second)
            return false;
        shape_.nodes[member].label = labelled(label);
    } while (text_->accept(','));
    shape_.nodes[whole].end = static_cast<unsigned int>(shape_.nodes.size());
    return text_->accept('}') && (unlabelled == 0 || labels.empty());
}

bool TreflectParameterType::Compiler::enumerators() {
    std::set<std::string_view> names;
    std::uint32_t next = 0;
    do {
        std::string_view const name = text_->identifier();
        if (name.empty() || shape_.nodes.size() >= kMostNodes || !names.insert(name).second ||
            (text_->accept('=') && !number(next)))
            return false;
        auto const end = static_cast<unsigned int>(shape_.nodes.size() + 1);
        shape_.nodes.push_back({Kind::kEnumerator, end, labelled(name), next});
        ++next;
    } while (text_->accept(','));
    return text_->accept('}');
}

bool TreflectParameterType::Compiler::number(std::uint32_t& value) {
    auto const found = wholeNumberIn(text_->word(), INT32_MIN, UINT32_MAX);
    value = static_cast<std::uint32_t>(found.value_or(0));
    return found.has_value();
}

std::string_view TreflectParameterType::Compiler::optionalLabel() {
    TextCursor const ahead = *text_;
    std::string_view const label = text_->identifier();
    if (label.empty() || label.find(':') != std::string_view::npos) {
        *text_ = ahead;
        return {};
    }
    return label;
}

unsigned int TreflectParameterType::Compiler::labelled(std::string_view name) {
    if (name.empty())
        return 0;
    sound_ = sound_ && name.size() <= kLongestLabel;
    shape_.labels.emplace_back(name);
    return static_cast<unsigned int>(shape_.labels.size() - 1);
}

// ---- References ---------------------------------------------------------------------------------

// The list grows while the types are made to which it leads.
bool TreflectParameterType::Compiler::resolveReferences() {
    for (std::size_t i = 0; i < references_.size(); ++i) {
        std::string const name = references_[i].second;
        if (defined_.count(name) == 0 && !define(name))
            return false;
        shape_.nodes[references_[i].first].number = defined_[name];
    }
    return true;
}

bool TreflectParameterType::Compiler::define(std::string const& name) {
    std::string const* const text = types_.find(name);
    if (!text)
        return false;
    TextCursor definition(*text);
    TextCursor* const outer = std::exchange(text_, &definition);
    bool const complete = type(1) && definition.atEnd();
    text_ = outer;
    return complete && defined_.count(name) != 0;
}

// ---- What could go on for ever ------------------------------------------------------------------

bool TreflectParameterType::Compiler::isSound() {
    auto const count = static_cast<unsigned int>(shape_.nodes.size());
    leastSizes_.assign(count, kUnknown);
    for (unsigned int at = 0; at < count && sound_; ++at)
        leastSize(at, 0);
    for (unsigned int at = 0; at < count && sound_; ++at)
        sound_ = hasBytesWhereNeeded(at);
    return sound_;
}

/** An effort that is bounded by the bytes needs elements, and structs of parts, that have some. */
bool TreflectParameterType::Compiler::hasBytesWhereNeeded(unsigned int at) const {
    Node const& node = shape_.nodes[at];
    switch (node.kind) {
        case Kind::kSequence:
        case Kind::kArray:
            return leastSizes_[at + 1] > 0;
        case Kind::kMap:
            return leastSizes_[at + 1] + leastSizes_[shape_.nodes[at + 1].end] > 0;
        case Kind::kStruct:
            return leastSizes_[at] > 0 || node.end == at + 1;
        default:
            return true;
    }
}

std::uint32_t TreflectParameterType::Compiler::leastSize(unsigned int at, int depth) {
    std::uint32_t const known = leastSizes_[at];
    if (known == kBeingMeasured || depth > kMaxValueDepth) {
        sound_ = false;  // a part of itself
        return 0;
    }
    if (known != kUnknown)
        return known;
    leastSizes_[at] = kBeingMeasured;
    std::uint64_t const size = leastSizeOfWhole(at, depth + 1);
    return leastSizes_[at] = static_cast<std::uint32_t>(std::min<std::uint64_t>(size, kMost));
}

std::uint64_t TreflectParameterType::Compiler::leastSizeOfWhole(unsigned int at, int depth) {
    Node const& node = shape_.nodes[at];
    switch (node.kind) {
        case Kind::kVoid:
        case Kind::kEnumerator:
            return 0;
        case Kind::kInt64:
        case Kind::kUint64:
        case Kind::kDouble:
        case Kind::kOid:
            return 8;
        case Kind::kObject:
            return 16;
        case Kind::kReference:
            return leastSize(node.number, depth);
        case Kind::kArray:
            return std::uint64_t{node.number} * leastSize(at + 1, depth);
        case Kind::kStruct: {
            std::uint64_t sum = 0;
            for (unsigned int part = at + 1; part < node.end; part = shape_.nodes[part].end)
                sum += leastSize(part, depth);
            return sum;
        }
        default:
            return 4;
    }
}

// ---- Types with names ---------------------------------------------------------------------------

bool TreflectTypes::add(std::string const& definition) {
    std::string const name = TreflectParameterType::nameIn(definition);
    if (name.empty())
        return false;
    texts_.insert_or_assign(name, definition);
    return true;
}

std::string const* TreflectTypes::find(std::string_view name) const {
    auto const found = texts_.find(name);
    return found == texts_.end() ? nullptr : &found->second;
}

TreflectParameterType::TreflectParameterType(std::string const& name, TreflectTypes const& types)
    : name_(name) {
    TextCursor text(name_);
    Compiler compiler(text, types);
    if (!compiler.compile() || !text.atEnd())
        return;
    label_ = compiler.label();
    shape_ = compiler.shape();
}

std::string TreflectParameterType::nameIn(std::string const& definition) {
    TextCursor text(definition);
    TreflectTypes const none;
    Compiler compiler(text, none);
    return compiler.readDefinition() && text.atEnd() ? compiler.definedFirst() : std::string();
}

std::string TreflectParameterType::Compiler::definedFirst() const {
    for (auto const& [name, at] : defined_) {
        if (at == 0)
            return name;
    }
    return {};
}
