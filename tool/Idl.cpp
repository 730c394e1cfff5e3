#include "Idl.h"

#include <fmt/format.h>

#include <cctype>
#include <map>
#include <optional>
#include <set>

namespace {

using Description = TreflectClassDescription;

/** Thrown for what IDL cannot say. */
struct Unsayable {};

std::string lastName(std::string const& scoped) {
    std::size_t const end = scoped.rfind("::");
    return end == std::string::npos ? scoped : scoped.substr(end + 2);
}

std::map<std::string, std::string> const& words() {
    static std::map<std::string, std::string> const words{
        {"int", "long"},        {"unsigned", "unsigned long"},
        {"int8", "int8"},       {"uint8", "octet"},
        {"int16", "short"},     {"uint16", "unsigned short"},
        {"int32", "long"},      {"uint32", "unsigned long"},
        {"int64", "long long"}, {"uint64", "unsigned long long"},
        {"float", "float"},     {"double", "double"},
        {"bool", "boolean"},    {"char", "char"},
        {"string", "string"},   {"oid", "oid"},
        {"object", "Object"},   {"any", "any"}};
    return words;
}

/** Turns names of types into IDL, and collects what has to be declared ahead of them. */
class IdlTypes {
public:
    explicit IdlTypes(std::string prefix) : prefix_(std::move(prefix)) {}

    /** The type of a parameter. `bound`: of a sequence; 0 for none. */
    std::string type(std::string const& text, unsigned int bound = 0) {
        text_ = text;
        at_ = 0;
        return read(bound);
    }
    /** The fields of an exception. */
    std::string fields(std::string const& text) {
        text_ = text;
        at_ = 0;
        take("struct");
        readName();
        return readFields();
    }
    std::string const& declarations() const { return declarations_; }

private:
    void skipBlanks() {
        while (at_ < text_.size() && text_[at_] == ' ')
            ++at_;
    }
    bool take(std::string const& wanted) {
        skipBlanks();
        if (text_.compare(at_, wanted.size(), wanted) != 0)
            return false;
        at_ += wanted.size();
        return true;
    }
    void expect(std::string const& wanted) {
        if (!take(wanted))
            throw Unsayable();
    }
    std::string readName() {
        skipBlanks();
        std::size_t const begin = at_;
        while (at_ < text_.size() && (std::isalnum(static_cast<unsigned char>(text_[at_])) ||
                                      text_[at_] == '_' || text_[at_] == ':' || text_[at_] == '-'))
            ++at_;
        return text_.substr(begin, at_ - begin);
    }

    std::string read(unsigned int bound = 0) {
        std::string const word = readName();
        if (word == "struct")
            return readStruct();
        if (word == "enum")
            return readEnum();
        if (word == "bytes")
            return declare("sequence<octet> ", "");
        if (word == "sequence" || word == "array")
            return readElements(word == "array", bound);
        auto const known = words().find(word);
        if (known != words().end())
            return known->second;
        if (word.empty() || word == "union" || word == "optional" || word == "map" ||
            word == "void")
            throw Unsayable();
        return lastName(word);
    }
    std::string readElements(bool isArray, unsigned int bound) {
        expect("<");
        std::string const element = read();
        std::string length;
        if (isArray) {
            expect(",");
            length = "[" + readName() + "]";
        }
        expect(">");
        if (isArray)
            return declare(element + " ", length);
        return declare(bound == 0 ? "sequence<" + element + "> "
                                  : fmt::format("sequence<{}, {}> ", element, bound),
                       "");
    }
    /** IDL has typedefs where it takes no such type. */
    std::string declare(std::string const& type, std::string const& behind) {
        std::string& name = typedefs_[type + behind];
        if (name.empty()) {
            name = prefix_ + "Type" + std::to_string(typedefs_.size());
            declarations_ += "typedef " + type + name + behind + ";\n";
        }
        return name;
    }
    std::string readFields() {
        std::string fields;
        expect("{");
        for (unsigned int number = 0; !take("}"); ++number) {
            std::string const type = read();
            std::string const name = readName();
            fields += fmt::format("    {} {};\n", type,
                                  name.empty() ? "field" + std::to_string(number) : name);
            take(",");
        }
        return fields;
    }
    std::string readStruct() {
        std::string const name = lastName(readName());
        if (name.empty())
            throw Unsayable();
        std::string const fields = readFields();
        if (named_.insert(name).second)
            declarations_ += "struct " + name + " {\n" + fields + "};\n";
        return name;
    }
    /** IDL counts from 0 and knows no other numbers. */
    std::string readEnum() {
        std::string const name = lastName(readName());
        std::string enumerators;
        expect("{");
        for (unsigned int number = 0; !take("}"); ++number) {
            enumerators += (enumerators.empty() ? "" : ", ") + readName();
            if (take("=") && readName() != std::to_string(number))
                throw Unsayable();
            take(",");
        }
        if (name.empty())
            throw Unsayable();
        if (named_.insert(name).second)
            declarations_ += "enum " + name + " {" + enumerators + "};\n";
        return name;
    }

    std::string const prefix_;
    std::string text_;
    std::size_t at_ = 0;
    std::string declarations_;
    std::map<std::string, std::string> typedefs_;
    std::set<std::string> named_;
};

std::string commentOf(std::string const& doc, std::string const& indent) {
    std::string within = doc;
    for (std::size_t at = 0; (at = within.find("*/", at)) != std::string::npos;)
        within.replace(at, 2, "* /");
    std::vector<std::string> const lines = linesOf(within);
    std::string text;
    for (std::size_t i = 0; i < lines.size(); ++i)
        text += indent + (i == 0 ? "/** " : " * ") + lines[i] +
                (i + 1 == lines.size() ? " */\n" : "\n");
    return text;
}

/** One interface. */
class Interface {
public:
    explicit Interface(Description const& described)
        : described_(described), types_(described.name) {}

    std::string text() {
        for (std::string const& type : described_.types)
            said([&] { return types_.type(type); });
        std::string members;
        for (Description::Attribute const& attribute : described_.attributes)
            members += attributeText(attribute);
        for (Description::Operation const& operation : described_.operations) {
            if (accessors_.count(operation.name) == 0)
                members += operationText(operation);
        }
        return types_.declarations() + commentOf(described_.doc, "") + "interface " +
               described_.name + bases() + " {\n" +
               fmt::format("#pragma reflectorb class 0x{:08X}\n", described_.id) + exceptions_ +
               members + "};\n";
    }

private:
    template <class Say>
    static std::optional<std::string> said(Say const& say) {
        try {
            return say();
        } catch (Unsayable const&) {
            return std::nullopt;
        }
    }
    static std::string unsaid(std::string const& what) {
        return "    // not in IDL: " + what + "\n";
    }

    std::string bases() const {
        std::string text;
        for (Description::Base const& base : described_.bases)
            text += (text.empty() ? " : " : ", ") + base.name;
        return text;
    }
    /** What an operation raises, declared ahead of it; an exception that IDL cannot say is left
     * out. */
    std::string raised(Description::Operation const* operation) {
        std::string names;
        if (!operation)
            return names;
        for (Description::Exception const& exception : operation->raises) {
            std::size_t const begin = exception.type.find(' ') + 1;
            std::string const name =
                lastName(exception.type.substr(begin, exception.type.find('{') - begin));
            std::optional<std::string> const fields =
                said([&] { return types_.fields(exception.type); });
            if (name.empty() || !fields)
                continue;
            std::string inner;
            for (std::string const& line : linesOf(*fields))
                inner += "        " + line + "\n";
            if (declared_.insert(name).second)
                exceptions_ += fmt::format(
                    "    exception {} {{\n{}    }};\n"
                    "#pragma reflectorb code 0x{:X}\n",
                    name, inner, exception.code);
            names += " " + name;
        }
        return names;
    }

    std::string attributeText(Description::Attribute const& attribute) {
        Description::Operation const* const get = operationOf(described_, "get" + attribute.name);
        Description::Operation const* const set =
            attribute.writable ? operationOf(described_, "set" + attribute.name) : nullptr;
        bool const isWhole =
            get && get->in.empty() && get->out.size() == 1 && (!attribute.writable || set);
        unsigned int const bound =
            attribute.kind == Description::Kind::Sequence ? attribute.length : 0;
        std::optional<std::string> const type =
            isWhole ? said([&] { return types_.type(get->out[0].type, bound); }) : std::nullopt;
        if (!type)
            return unsaid("attribute " + attribute.name);
        accessors_.insert(get->name);
        std::string name = attribute.name;
        name[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[0])));
        std::string text =
            commentOf(attribute.doc, "    ") +
            fmt::format("    {}attribute {} {};\n", set ? "" : "readonly ", *type, name) +
            fmt::format("#pragma reflectorb code 0x{:X}", get->code);
        if (set) {
            accessors_.insert(set->name);
            text += fmt::format(" 0x{:X}", set->code);
        }
        text += "\n";
        if (std::string const names = raised(get); !names.empty())
            text += "#pragma reflectorb getraises" + names + "\n";
        if (std::string const names = raised(set); !names.empty())
            text += "#pragma reflectorb setraises" + names + "\n";
        return text;
    }

    std::string parameters(Description::Operation const& operation) {
        std::string text;
        auto const add = [&](char const* direction, Description::Parameter const& parameter) {
            std::string const type = types_.type(parameter.type);
            text += (text.empty() ? "" : ", ") + fmt::format("{} {} {}", direction, type,
                                                             parameter.name.empty()
                                                                 ? fmt::format("p{}", text.size())
                                                                 : parameter.name);
        };
        for (Description::Parameter const& parameter : operation.in)
            add("in", parameter);
        for (std::size_t i = 1; i < operation.out.size(); ++i)
            add("out", operation.out[i]);
        return text;
    }
    std::string operationText(Description::Operation const& operation) {
        std::optional<std::string> const text = said([&] {
            std::string const type =
                operation.out.empty() ? "void" : types_.type(operation.out[0].type);
            return fmt::format("    {} {}({})", type, operation.name, parameters(operation));
        });
        if (!text)
            return unsaid(signatureOf(operation));
        std::string raises;
        std::string const names = raised(&operation);
        for (char const c : names)
            raises += c == ' ' ? (raises.empty() ? " raises (" : ", ") : std::string(1, c);
        return commentOf(operation.doc, "    ") + *text + raises + (raises.empty() ? "" : ")") +
               fmt::format(";\n#pragma reflectorb code 0x{:X}\n", operation.code);
    }

    Description const& described_;
    IdlTypes types_;
    std::string exceptions_;
    std::set<std::string> declared_;
    std::set<std::string> accessors_;
};

}  // namespace

std::string idlOf(Descriptions const& descriptions) {
    std::string text = "#include <reflectorb.idl>\n";
    std::map<std::string, Description const*> known;
    for (Description const& described : descriptions)
        known[described.name] = &described;
    std::set<std::string> written;
    // Bases come ahead of what is derived from them.
    std::function<void(Description const&)> const write = [&](Description const& described) {
        if (!written.insert(described.name).second)
            return;
        for (Description::Base const& base : described.bases) {
            if (known.count(base.name) != 0)
                write(*known[base.name]);
        }
        text += "\n" + Interface(described).text();
    };
    if (!descriptions.empty())
        write(descriptions.front());
    return text;
}
