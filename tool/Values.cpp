#include "Values.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "Failure.h"

namespace {

/** Text between the elements of a list, for all but its first. */
char const* separator(std::size_t index) {
    return index == 0 ? "" : ", ";
}

std::string bytesText(TipprmiAny const& value) {
    TipprmiAny wrapped;
    wrapped.insert(value);
    return TreflectParameterType("any").print(wrapped).value();
}

/** Without the name of the parameter, which may stand behind it. */
std::string textOf(TreflectParameterType const& type) {
    std::string const& name = type.name();
    std::size_t const end = name.size() - type.label().size();
    return name.empty() ? "?" : name.substr(0, name.find_last_not_of(' ', end - 1) + 1);
}

/** With the names of parameters. */
std::string labelled(Types const& types) {
    std::string text;
    for (std::size_t i = 0; i < types.size(); ++i)
        (text += separator(i)) += types[i].name().empty() ? "?" : types[i].name();
    return text;
}

/** Reads what TreflectParameterType prints. What is none of that becomes a string. */
class Reader {
public:
    explicit Reader(std::string const& text) : text_(text) {}

    Json read() {
        Json value = readValue();
        return at_ == text_.size() ? value : Json(text_);
    }

private:
    char next() const { return at_ < text_.size() ? text_[at_] : '\0'; }
    void skipBlanks() {
        while (next() == ' ')
            ++at_;
    }
    bool take(char wanted) {
        skipBlanks();
        if (next() != wanted)
            return false;
        ++at_;
        skipBlanks();
        return true;
    }

    Json readValue() {
        skipBlanks();
        if (take('['))
            return readList(']');
        if (take('{'))
            return readBraces();
        if (next() == '"')
            return readQuoted();
        return valueOfWord(readWord());
    }
    Json readList(char end) {
        Json list = Json::array();
        while (!take(end) && at_ < text_.size()) {
            list.push_back(readValue());
            take(',');
        }
        return list;
    }
    /** Values with names or keys, or values that belong together. */
    Json readBraces() {
        Json list = Json::array();
        Json object = Json::object();
        while (!take('}') && at_ < text_.size()) {
            Json const first = readValue();
            if (take(':'))
                addTo(object, first);
            else
                list.push_back(first);
            take(',');
        }
        return list.empty() ? object : list;
    }
    /** Behind those that are there, without a look at them: there may be many. */
    void addTo(Json& object, Json const& key) {
        std::string const name = key.is_string()
                                     ? key.get<std::string>()
                                     : key.dump(-1, ' ', false, Json::error_handler_t::replace);
        object.get_ref<Json::object_t&>().emplace_back(name, readValue());
    }
    /** A string, or an identifier with its namespace. */
    Json readQuoted() {
        std::string text;
        for (++at_; at_ < text_.size() && text_[at_] != '"'; ++at_)
            text += text_[at_] == '\\' ? readEscape() : text_[at_];
        ++at_;
        if (next() == '@')
            text += readWord();
        return text;
    }
    char readEscape() {
        constexpr int kHexadecimal = 16;
        char const what = ++at_ < text_.size() ? text_[at_] : '\\';
        switch (what) {
            case 'n':
                return '\n';
            case 'r':
                return '\r';
            case 't':
                return '\t';
            case 'x':
                at_ += 2;
                return static_cast<char>(
                    std::strtol(text_.substr(at_ - 1, 2).c_str(), nullptr, kHexadecimal));
            default:
                return what;
        }
    }
    std::string readWord() {
        std::size_t const begin = at_;
        while (at_ < text_.size() && std::string(",:]} ").find(text_[at_]) == std::string::npos)
            ++at_;
        if (at_ == begin && at_ < text_.size())
            ++at_;
        return text_.substr(begin, at_ - begin);
    }
    static Json valueOfWord(std::string const& word) {
        if (word == "true" || word == "false")
            return word == "true";
        bool const isHexadecimal = word.find('x') != std::string::npos;
        bool const begins = !word.empty() && (std::isdigit(static_cast<unsigned char>(word[0])) ||
                                              (word[0] == '-' && word.size() > 1));
        if (!begins || isHexadecimal)
            return word;
        char* end = nullptr;
        errno = 0;
        if (word.find_first_of(".en") != std::string::npos) {
            double const number = std::strtod(word.c_str(), &end);
            return *end == '\0' && word.find('n') == std::string::npos ? Json(number) : Json(word);
        }
        Json const number = word[0] == '-' ? Json(std::strtoll(word.c_str(), &end, 10))
                                           : Json(std::strtoull(word.c_str(), &end, 10));
        return *end == '\0' && errno == 0 ? number : Json(word);
    }

    std::string const& text_;
    std::size_t at_ = 0;
};

std::string quoted(std::string const& text) {
    std::string quoted = "\"";
    for (char const letter : text) {
        constexpr char kDigits[] = "0123456789abcdef";
        auto const code = static_cast<unsigned char>(letter);
        if (code < 0x20)
            (quoted += "\\x") += {kDigits[code >> 4], kDigits[code & 15]};
        else
            (quoted += letter == '"' || letter == '\\' ? "\\" : "") += letter;
    }
    return quoted + '"';
}

/** A word may be a text or the name of a value: bare it is both. */
std::string word(std::string const& text) {
    bool const isBare =
        !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char letter) {
            return std::isalnum(letter) != 0 ||
                   std::string_view("_.+-@/").find(static_cast<char>(letter)) !=
                       std::string_view::npos;
        });
    return isBare ? text : quoted(text);
}

/** As TreflectParameterType understands it. */
std::string textOfJson(Json const& value) {
    if (value.is_string())
        return word(value.get<std::string>());
    if (!value.is_structured())
        return value.dump();
    std::string text;
    for (auto const& entry : value.items())
        text += separator(text.size()) + (value.is_object() ? word(entry.key()) + ": " : "") +
                textOfJson(entry.value());
    return value.is_object() ? "{" + text + "}" : "[" + text + "]";
}

/** By itself a text is what it is, and anything else may be written as a text. */
std::string textOfArgument(TreflectParameterType const& type, Json const& value) {
    if (!value.is_string())
        return textOfJson(value);
    std::string const name = textOf(type);
    return name == "string" || name == "char" ? quoted(value.get<std::string>())
                                              : value.get<std::string>();
}

}  // namespace

std::string typesText(Types const& types) {
    std::string text;
    for (std::size_t i = 0; i < types.size(); ++i)
        (text += separator(i)) += textOf(types[i]);
    return text;
}

std::string signatureText(TreflectMetaOperation const& operation) {
    std::string const results = typesText(operation.resultTypes());
    return operation.name() + "(" + labelled(operation.argumentTypes()) + ")" +
           (results.empty() ? "" : " -> " + results);
}

Json typesJson(Types const& types) {
    Json all = Json::array();
    for (TreflectParameterType const& type : types)
        all.push_back({{"name", type.label()}, {"type", textOf(type)}});
    return all;
}

Values parseValues(Types const& types, std::vector<std::string> const& texts) {
    if (texts.size() != types.size())
        throw Failure(ExitCode::kWrongUse,
                      "arguments wanted: " + (types.empty() ? "none" : labelled(types)) +
                          "; given: " + std::to_string(texts.size()));
    Values values;
    values.setLength(static_cast<unsigned int>(types.size()));
    for (unsigned int i = 0; i < values.getLength(); ++i) {
        if (!types[i].parse(texts[i], values[i]))
            throw Failure(ExitCode::kWrongUse,
                          "\"" + texts[i] + "\" is no value of type " + textOf(types[i]));
    }
    return values;
}

Values parseJson(Types const& types, Json const& arguments) {
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < arguments.size(); ++i)
        texts.push_back(i < types.size() ? textOfArgument(types[i], arguments[i]) : "");
    return parseValues(types, texts);
}

Shown show(Types const& types, unsigned int index, TipprmiAny const& value) {
    if (index < types.size()) {
        TipprmiResult<std::string> const text = types[index].print(value);
        if (text)
            return {textOf(types[index]), text.value(), jsonOfText(text.value())};
    }
    std::string const bytes = bytesText(value);
    return {"?", bytes, bytes};
}

std::string valuesText(Types const& types, Values const& values) {
    std::string text;
    for (unsigned int i = 0; i < values.getLength(); ++i)
        text += separator(i) + show(types, i, values[i]).text;
    return text;
}

Json valuesJson(Types const& types, Values const& values) {
    Json all = Json::array();
    for (unsigned int i = 0; i < values.getLength(); ++i)
        all.push_back(show(types, i, values[i]).json);
    return all;
}

Json jsonOfText(std::string const& text) {
    return Reader(text).read();
}
