// Types of arguments of unknown origin, and values of them as text and as bytes.
#include <algorithm>
#include <cstdint>

#include "FuzzProcess.h"
#include "reflect/TreflectParameterType.h"

namespace {

/** What is printed is understood, and printed as the same again. Not so names that arrive: objects
 * need not be there, and a NUL is possible. */
void requireStable(TreflectParameterType const& type, TipprmiAny const& value) {
    std::string const printed = type.print(value).valueOr("unreadable");
    TipprmiAny parsed;
    if (type.parse(printed, parsed)) {
        if (type.print(parsed).value() != printed)
            std::abort();
    } else if (type.name().find("object") == std::string::npos &&
               printed.find("\\x00") == std::string::npos) {
        std::abort();
    }
}

/** The name of a type up to the first newline; behind it a value, tried as text and as bytes. */
void runParameter(std::uint8_t const* data, std::size_t size) {
    std::string const input(reinterpret_cast<char const*>(data), size);
    std::size_t const end = std::min(input.find('\n'), size);
    TreflectParameterType const type(input.substr(0, end));
    std::string const value = end < size ? input.substr(end + 1) : std::string();
    TipprmiAny any;
    if (type.parse(value, any))
        requireStable(type, any);
    TipprmiStream stream(value.data(), static_cast<int>(value.size()));
    while (type.take(stream, any))
        requireStable(type, any);
}

}  // namespace

FUZZ_TARGET(parameter, runParameter)
