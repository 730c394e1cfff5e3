// Values of types of which nothing is known but the names that a class gives them.
#pragma once

#include <cctype>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "reflect/TreflectParameterType.h"

namespace testsupport {

/** Makes the text of a value of a type, as TreflectParameterType reads and prints it. */
class Samples {
public:
    /** `object`: the identifier of one that is there; `types`: those to which others refer. */
    Samples(std::string const& object, TreflectTypes const& types) : types_(types.texts()) {
        known_["object"] = known_["oid"] = "\"" + object + "\"";
    }
    /** Also of the type of a parameter, with its name behind it. */
    std::string of(std::string const& type) {
        definitions_ = {types_.begin(), types_.end()};
        left_ = type;
        return value();
    }

private:
    static constexpr int kDeepest = 8;

    struct Member {
        std::string value;
        std::string name;
    };

    bool accept(char sign) {
        while (!left_.empty() && std::isspace(static_cast<unsigned char>(left_.front())))
            left_.remove_prefix(1);
        bool const isThere = !left_.empty() && left_.front() == sign;
        left_.remove_prefix(isThere ? 1 : 0);
        return isThere;
    }
    std::string word() {
        accept('\0');
        std::size_t size = 0;
        while (size < left_.size() && (std::isalnum(static_cast<unsigned char>(left_[size])) ||
                                       std::string_view("_:-+").find(left_[size]) < 4))
            ++size;
        std::string const found(left_.substr(0, size));
        left_.remove_prefix(size);
        return found;
    }
    std::string value() {
        std::string_view const whole = left_;
        std::string const kind = word();
        if (accept('<'))
            return container(kind);
        if (kind.empty() || kind == "struct" || kind == "union" || kind == "enum")
            return defined(kind, whole);
        if (auto const known = known_.find(kind); known != known_.end())
            return known->second;
        return referred(kind);
    }
    std::string container(std::string const& kind) {
        ++depth_;
        std::string first = value();
        std::string const second = accept(',') ? kind == "map" ? value() : word() : "";
        accept('>');
        bool const isEmpty = depth_-- > kDeepest;
        if (kind == "map")
            return isEmpty ? "{}" : "{" + first + ": " + second + "}";
        if (kind != "array" && isEmpty)
            return "[]";
        std::size_t const count = kind == "array" ? std::stoul(second) : kind == "sequence" ? 2 : 1;
        std::string all = first;
        for (std::size_t i = 1; i < count; ++i)
            all += ", " + first;
        return "[" + all + "]";
    }
    std::string defined(std::string const& kind, std::string_view whole) {
        std::string const name = kind.empty() ? "" : word();
        definitions_[name] = whole;
        accept('{');
        if (kind == "enum")
            return lastEnumerator();
        std::vector<Member> const all = members();
        bool const hasNames = !all.empty() && !all.front().name.empty();
        if (kind == "union")
            return "{" + (hasNames ? all.back().name : std::to_string(all.size() - 1)) + ": " +
                   all.back().value + "}";
        std::string text;
        for (Member const& member : all)
            text +=
                (text.empty() ? "" : ", ") + (hasNames ? member.name + ": " : "") + member.value;
        return "{" + text + "}";
    }
    std::string lastEnumerator() {
        std::string last = word();
        while (!accept('}')) {
            if (accept('='))
                word();
            else if (accept(','))
                last = word();
        }
        return last;
    }
    std::vector<Member> members() {
        std::vector<Member> all;
        while (!accept('}')) {
            accept(',');
            std::string const made = value();
            all.push_back({made, word()});
        }
        return all;
    }
    /** A type that has been defined further ahead. */
    std::string referred(std::string const& name) {
        if (depth_ > kDeepest || definitions_.count(name) == 0)
            return "{}";  // within something that stays empty
        std::string_view const rest = left_;
        left_ = definitions_[name];
        std::string const made = value();
        left_ = rest;
        return made;
    }

    std::map<std::string, std::string, std::less<>> const types_;
    std::string_view left_;  // of the type that is being read
    int depth_ = 0;
    std::map<std::string, std::string_view> definitions_;
    std::map<std::string, std::string> known_{{"int", "-2147483648"},
                                              {"unsigned", "4294967295"},
                                              {"int8", "-128"},
                                              {"int16", "-32768"},
                                              {"int32", "2147483647"},
                                              {"int64", "-9223372036854775808"},
                                              {"uint8", "255"},
                                              {"uint16", "65535"},
                                              {"uint32", "1"},
                                              {"uint64", "18446744073709551615"},
                                              {"float", "-2.5"},
                                              {"double", "0.1"},
                                              {"bool", "true"},
                                              {"char", "\"\xE9\""},
                                              {"string", "\"a \\\"b\\\"\\n\""},
                                              {"bytes", "0x00FF"},
                                              {"any", "0x0000002A"},
                                              {"void", "{}"}};
};

}  // namespace testsupport
