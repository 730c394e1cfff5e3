// Names of C++ types, as the tables of classes have them.
#include <cstring>
#include <string_view>

#include "reflect/TreflectTypeName.h"
#include "reflect/classes/TextCursor.h"

namespace treflect {

namespace {

// The structs whose types this thread is making, the innermost first.
thread_local StructInWork* innermost = nullptr;

/** The parts with commas between them, between `open` and `close`. */
std::string joined(std::string text, std::vector<std::string> const& parts, char close) {
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (parts[i].empty())
            return {};
        (text += i > 0 ? ", " : "") += parts[i];
    }
    return text += close;
}

}  // namespace

std::string typeOf(char const* name, std::vector<std::string> const& parts) {
    return joined(std::string(name) + '<', parts, '>');
}

std::string typeOfMembers(char const* name, std::vector<std::string> const& parts) {
    return joined(std::string(name) + '{', parts, '}');
}

std::string typeOfStruct(char const* text, std::vector<std::string> const& members) {
    TextCursor names(text);
    std::string const head = "struct " + std::string(names.identifier());
    std::vector<std::string> parts;
    for (std::string const& member : members) {
        if (!names.accept('{'))
            names.accept(',');
        std::string_view const name = names.identifier();
        parts.push_back(member.empty() ? member : member + ' ' + std::string(name));
    }
    return joined(head + '{', parts, '}');
}

StructInWork::StructInWork(char const* text) : text_(text), outer_(innermost) {
    for (StructInWork const* other = outer_; other && !within_; other = other->outer_)
        within_ = std::strcmp(other->text_, text) == 0;
    innermost = this;
}

StructInWork::~StructInWork() {
    innermost = outer_;
}

std::string StructInWork::name() const {
    return std::string(text_, std::strcspn(text_, "{"));
}

}  // namespace treflect
