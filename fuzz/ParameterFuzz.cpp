// Types of arguments of unknown origin, and values of them as text and as bytes.
#include <algorithm>

#include "FuzzProcess.h"
#include "reflect/TreflectParameterType.h"

namespace {

/** What is printed is understood, and printed as the same again. Not so names that arrive: objects
 * need not be there, and a NUL is possible. */
void requireStable(TreflectParameterType const& type, TipprmiAny const& value,
                   bool mayNameObjects) {
    std::string const printed = type.print(value).valueOr("unreadable");
    TipprmiAny parsed;
    if (type.parse(printed, parsed)) {
        if (type.print(parsed).value() != printed)
            std::abort();
    } else if (!mayNameObjects && printed.find("\\x00") == std::string::npos) {
        std::abort();
    }
}

/** The name of a type, and behind each ; a type that it may refer to. */
TreflectParameterType typeIn(std::string const& text) {
    std::size_t const end = std::min(text.find(';'), text.size());
    TreflectTypes types;
    for (std::size_t at = end; at < text.size();) {
        std::size_t const next = std::min(text.find(';', at + 1), text.size());
        types.add(text.substr(at + 1, next - at - 1));
        at = next;
    }
    TreflectParameterType const type(text.substr(0, end), types);
    if (type.isValid() && !type.hasFormOf(type))
        std::abort();
    return type;
}

/** The type up to the first newline; behind it a value, tried as text and as bytes. */
void runParameter(std::uint8_t const* data, std::size_t size) {
    std::string const input(reinterpret_cast<char const*>(data), size);
    std::size_t const end = std::min(input.find('\n'), size);
    TreflectParameterType const type = typeIn(input.substr(0, end));
    bool const mayNameObjects = input.substr(0, end).find("object") != std::string::npos;
    std::string const value = end < size ? input.substr(end + 1) : std::string();
    TipprmiAny any;
    if (type.parse(value, any)) {
        requireStable(type, any, mayNameObjects);
        if (!type.accepts(any))
            std::abort();
    }
    TipprmiStream stream(value.data(), static_cast<int>(value.size()));
    // Types without bytes can be taken for ever.
    for (int last = -1; last != stream.getUnreadSize();) {
        last = stream.getUnreadSize();
        if (!type.take(stream, any))
            break;
        requireStable(type, any, mayNameObjects);
    }
}

}  // namespace

FUZZ_TARGET(parameter, runParameter)
