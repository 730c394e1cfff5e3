// Classes as values that can be sent.
#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <list>
#include <set>
#include <string_view>

#include "reflect/TreflectClassDescription.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaClass.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/classes/TextCursor.h"

namespace {

using Description = TreflectClassDescription;

// ---- Of a class of this process ----------------------------------------------------------------

/** The direct bases that are there: in the order of the class's table if it has one. */
std::vector<TreflectMetaObject const*> basesOf(TreflectMetaObject const& meta) {
    std::vector<TreflectMetaObject const*> bases;
    if (auto const* const tables = dynamic_cast<TreflectMetaClass const*>(&meta)) {
        for (TreflectMetaObject const* const base : tables->bases()) {
            if (meta.parents().count(const_cast<TreflectMetaObject*>(base)) != 0)
                bases.push_back(base);
        }
        return bases;
    }
    bases.assign(meta.parents().begin(), meta.parents().end());
    std::sort(bases.begin(), bases.end(),
              [](auto const* a, auto const* b) { return a->getClassId() < b->getClassId(); });
    return bases;
}

/** The comment of a member that the class itself declares. */
template <class Member>
std::string docOf(Member const& member) {
    auto const* const tables =
        dynamic_cast<TreflectMetaClass const*>(member.containingMetaObject());
    return tables ? tables->docOf(member.name()) : "";
}

/** A name of a type, perhaps with that of the parameter behind it. */
Description::Parameter parameterOf(TreflectParameterType const& type) {
    std::string text = type.name();
    if (type.label().empty())
        return {"", text};
    text.erase(text.rfind(type.label()));
    text.erase(text.find_last_not_of(" \t\n") + 1);
    return {type.label(), text};
}

/** Without the types that the operation itself would make and keep for this. */
std::vector<Description::Parameter> parametersOf(TreflectMetaOperation const& operation,
                                                 char const* direction) {
    TreflectTypes const& types = operation.containingMetaObject()->types();
    std::vector<Description::Parameter> parameters;
    for (;;) {
        auto const text =
            operation.parameters().find(direction + std::to_string(parameters.size()));
        if (text == operation.parameters().end())
            return parameters;
        parameters.push_back(parameterOf(TreflectParameterType(text->second, types)));
    }
}

Description::Operation describe(TreflectMetaOperation const& operation) {
    Description::Operation described;
    described.name = operation.name();
    described.code = static_cast<unsigned int>(operation.id());
    described.in = parametersOf(operation, "in");
    described.out = parametersOf(operation, "out");
    for (auto const& [code, type] : operation.exceptions())
        described.raises.push_back({code, type});
    described.doc = docOf(operation);
    return described;
}

Description::Attribute describe(TreflectMetaAttribute const& attribute) {
    Description::Attribute described;
    described.name = attribute.name();
    if (dynamic_cast<TreflectSequenceMetaAttribute const*>(&attribute))
        described.kind = Description::Kind::Sequence;
    else if (dynamic_cast<TreflectArrayMetaAttribute const*>(&attribute))
        described.kind = Description::Kind::Array;
    described.length = static_cast<unsigned int>(std::max(0, attribute.constLength()));
    described.writable = attribute.metaOperSet();
    described.valueClass = attribute.typeName();
    if (attribute.typeMeta())
        described.valueClassId = attribute.typeMeta()->getClassId();
    described.doc = docOf(attribute);
    return described;
}

template <class Member, class Described>
void describeOwn(TreflectMetaObject const& meta, std::list<Member*> const& members,
                 std::vector<Described>& out) {
    for (Member const* const member : members) {
        if (member->containingMetaObject() == &meta)
            out.push_back(describe(*member));
    }
}

// ---- As lines ----------------------------------------------------------------------------------

__attribute__((format(printf, 1, 2))) std::string formatted(char const* format, ...) {
    char text[64];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

std::string classText(std::string const& name, unsigned int id) {
    return name + formatted(" 0x%08X", id);
}

std::string typesText(std::vector<Description::Parameter> const& parameters) {
    std::string text = "(";
    for (std::size_t i = 0; i < parameters.size(); ++i)
        (text += i == 0 ? "" : ", ") += parameters[i].type.empty() ? "?" : parameters[i].type;
    return text + ")";
}

std::string lineOf(Description::Base const& base) {
    return "base " + classText(base.name, base.id) + formatted(" %016" PRIx64, base.hash);
}

std::string lineOf(Description::Operation const& operation) {
    std::string line = "operation " + operation.name + " " + std::to_string(operation.code) + " " +
                       typesText(operation.in) + " -> " + typesText(operation.out);
    std::set<std::string> raised;
    for (Description::Exception const& exception : operation.raises)
        raised.insert(formatted(" raises 0x%08X ", exception.code) + exception.type);
    for (std::string const& exception : raised)
        line += exception;
    return line;
}

std::string lineOf(Description::Attribute const& attribute) {
    std::string line = "attribute " + attribute.name;
    if (attribute.kind != Description::Kind::Plain)
        line += (attribute.kind == Description::Kind::Array ? " array " : " sequence ") +
                std::to_string(attribute.length);
    if (attribute.writable)
        line += " writable";
    if (!attribute.valueClass.empty())
        line += " of " + classText(attribute.valueClass, attribute.valueClassId);
    return line;
}

std::string lineOf(std::string const& type) {
    return "type " + type;
}

template <class Part>
void addLines(std::vector<Part> const& parts, std::vector<std::string>& lines) {
    for (Part const& part : parts)
        lines.push_back(lineOf(part));
}

// ---- What readers accept -----------------------------------------------------------------------

bool isText(std::string const& text, std::size_t longest) {
    auto const isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
    return text.size() <= longest && std::none_of(text.begin(), text.end(), isControl);
}

bool isName(std::string const& name) {
    return !name.empty() && isText(name, Description::kLongestName);
}

/** Of a member, behind which its outline goes on. */
bool isWord(std::string const& name) {
    return isName(name) && name.find(' ') == std::string::npos;
}

char closingOf(char opening) {
    switch (opening) {
        case '(':
            return ')';
        case '<':
            return '>';
        case '[':
            return ']';
        case '{':
            return '}';
        default:
            return '\0';
    }
}

/** Whether the outline tells it from what stands beside it: no bracket without its other one, no
 * comma outside of brackets. */
bool isWhole(std::string const& type) {
    std::string closings;
    for (char const c : type) {
        if (char const closing = closingOf(c))
            closings.push_back(closing);
        else if (!closings.empty() && closings.back() == c)
            closings.pop_back();
        else if (std::strchr(")>]}", c) || (c == ',' && closings.empty()))
            return false;
    }
    return closings.empty();
}

/** The outline has "?" for one that is not told. */
bool isType(std::string const& type) {
    return isText(type, Description::kLongestType) && isWhole(type) && type != "?";
}

/** Of two for one code the latter would count, though the outline has no order of them. */
bool areReadable(std::vector<Description::Exception> const& exceptions) {
    std::set<unsigned int> codes;
    return exceptions.size() <= Description::kMostParts &&
           std::all_of(exceptions.begin(), exceptions.end(), [&](auto const& exception) {
               return isType(exception.type) && codes.insert(exception.code).second &&
                      exception.type.find(" raises ") == std::string::npos;
           });
}

bool areReadable(std::vector<Description::Parameter> const& parameters) {
    return parameters.size() <= Description::kMostParts &&
           std::all_of(parameters.begin(), parameters.end(), [](auto const& parameter) {
               return isText(parameter.name, Description::kLongestName) && isType(parameter.type);
           });
}

bool isReadable(Description::Operation const& operation) {
    return isWord(operation.name) && areReadable(operation.in) && areReadable(operation.out) &&
           areReadable(operation.raises) && operation.doc.size() <= Description::kLongestText;
}

bool isReadable(Description::Attribute const& attribute) {
    return isWord(attribute.name) && attribute.kind <= Description::Kind::Array &&
           attribute.length <= TipprmiStream::kAcceptedLength &&
           isText(attribute.valueClass, Description::kLongestName) &&
           attribute.doc.size() <= Description::kLongestText;
}

/** The name of a member that is unreadable, or occurs twice; null without one. */
template <class Member>
Member const* faultyMember(std::vector<Member> const& members) {
    std::set<std::string> names;
    for (Member const& member : members) {
        if (!isReadable(member) || !names.insert(member.name).second)
            return &member;
    }
    return nullptr;
}

std::string faultOfOperations(std::vector<Description::Operation> const& operations) {
    if (auto const* const faulty = faultyMember(operations))
        return "operation " + std::to_string(faulty - operations.data()) +
               " is unreadable or occurs twice";
    std::set<unsigned int> codes;
    for (Description::Operation const& operation : operations) {
        if (!codes.insert(operation.code).second)
            return "method code " + std::to_string(operation.code) + " occurs twice";
    }
    return {};
}

bool areBases(std::vector<Description::Base> const& bases) {
    return std::all_of(bases.begin(), bases.end(),
                       [](auto const& base) { return isName(base.name); });
}

bool areTypes(std::vector<std::string> const& types) {
    TreflectTypes known;
    bool const areNamed = std::all_of(types.begin(), types.end(), [&](std::string const& type) {
        return isType(type) && known.add(type);
    });
    return areNamed && known.texts().size() == types.size();
}

/** How large the types are to which a text leads; whatever has the name of one counts. */
std::size_t sizeOfReferred(std::string_view text, TreflectTypes const& types) {
    std::size_t size = 0;
    std::set<std::string_view> reached;
    std::vector<std::string_view> unread{text};
    while (!unread.empty()) {
        TextCursor cursor(unread.back());
        unread.pop_back();
        while (!cursor.empty()) {
            std::string_view const name = cursor.identifier();
            if (name.empty())
                cursor.next();
            std::string const* const type = types.find(name);
            if (type && reached.insert(name).second) {
                size += type->size();
                unread.push_back(*type);
            }
        }
    }
    return size;
}

}  // namespace

TreflectClassDescription TreflectClassDescription::of(TreflectMetaObject const& meta) {
    TreflectClassDescription described;
    described.name = meta.name();
    described.id = meta.getClassId();
    for (TreflectMetaObject const* const base : basesOf(meta))
        described.bases.push_back({base->name(), base->getClassId(), of(*base).hash});
    std::list<TreflectMetaOperation*> operations;
    meta.operationList(operations);
    describeOwn(meta, operations, described.operations);
    std::list<TreflectMetaAttribute*> attributes;
    meta.attributeList(attributes);
    describeOwn(meta, attributes, described.attributes);
    for (auto const& type : meta.types().texts())
        described.types.push_back(type.second);
    if (auto const* const tables = dynamic_cast<TreflectMetaClass const*>(&meta))
        described.doc = tables->doc();
    described.hash = described.computeHash();
    return described;
}

std::vector<std::string> TreflectClassDescription::outline() const {
    std::vector<std::string> lines;
    addLines(bases, lines);
    addLines(operations, lines);
    addLines(attributes, lines);
    addLines(types, lines);
    std::sort(lines.begin(), lines.end());
    lines.insert(lines.begin(), "class " + classText(name, id));
    return lines;
}

std::uint64_t TreflectClassDescription::computeHash() const {
    std::uint64_t value = 0xCBF29CE484222325;
    auto const add = [&value](char byte) {
        value = (value ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
    };
    for (std::string const& line : outline()) {
        std::for_each(line.begin(), line.end(), add);
        add('\n');
    }
    return value;
}

std::vector<std::string> TreflectClassDescription::difference(
    TreflectClassDescription const& former, TreflectClassDescription const& latter) {
    std::vector<std::string> before = former.outline();
    std::vector<std::string> after = latter.outline();
    std::sort(before.begin(), before.end());
    std::sort(after.begin(), after.end());
    std::vector<std::string> gone;
    std::vector<std::string> come;
    std::set_difference(before.begin(), before.end(), after.begin(), after.end(),
                        std::back_inserter(gone));
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                        std::back_inserter(come));
    std::vector<std::string> lines;
    for (std::string const& line : gone)
        lines.push_back("- " + line);
    for (std::string const& line : come)
        lines.push_back("+ " + line);
    return lines;
}

std::size_t TreflectClassDescription::expandedTypes() const {
    TreflectTypes known;
    for (std::string const& type : types)
        known.add(type);
    std::size_t size = 0;
    auto const add = [&](auto const& parts) {
        for (auto part = parts.begin(); part != parts.end() && size <= kMostExpanded; ++part)
            size += sizeOfReferred(part->type, known);
    };
    for (Operation const& operation : operations) {
        add(operation.in);
        add(operation.out);
        add(operation.raises);
    }
    return size;
}

std::string TreflectClassDescription::fault() const {
    std::size_t expanded = 0;
    return fault(expanded);
}

std::string TreflectClassDescription::fault(std::size_t& expanded) const {
    if (version == 0)
        return "it has no version";
    if (operations.size() > kMostMembers || attributes.size() > kMostMembers ||
        types.size() > kMostTypes || bases.size() > kMostParts || doc.size() > kLongestText)
        return "it has too much";
    if (!isName(name))
        return "its name is unreadable";
    if (!areBases(bases))
        return "the name of a base is unreadable";
    if (std::string const fault = faultOfOperations(operations); !fault.empty())
        return fault;
    if (auto const* const faulty = faultyMember(attributes))
        return "attribute " + std::to_string(faulty - attributes.data()) +
               " is unreadable or occurs twice";
    if (!areTypes(types))
        return "one of its types is none, or has no name, or that of another one";
    expanded = expandedTypes();
    if (expanded > kMostExpanded)
        return "its types are too large for the number of its parameters";
    return hash == computeHash() ? "" : "its hash is not that of what it describes";
}
