#include "Report.h"

#include <ipprmi.h>

#include <cstdio>

void say(std::string const& text) {
    std::puts(text.c_str());
    std::fflush(stdout);
}

bool complain(std::string const& text) {
    std::fprintf(stderr, "inspect: %s\n", text.c_str());
    return false;
}

std::string failureText(unsigned int code) {
    switch (code) {
        case TipprmiFailure::kNotServed:
            return "nobody has served it";
        case TipprmiFailure::kUnreadable:
            return "the answer is not what the class describes";
        case TipprmiFailure::kVetoed:
            return "an observer forbids it";
        case TipprmiFailure::kMismatch:
            return "the class describes something else";
        default:
            return "refused with code " + std::to_string(code);
    }
}
