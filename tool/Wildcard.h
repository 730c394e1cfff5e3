// Patterns of names.
#pragma once

#include <string>

/** A name in which * stands for any characters but "/", ** for any, and ? for one but "/". A value.
 */
class Wildcard {
public:
    explicit Wildcard(std::string pattern) : pattern_(std::move(pattern)) {}

    bool matches(std::string const& name) const { return matches(0, name, 0); }
    /** Whether a name has any of them. */
    static bool isIn(std::string const& name) {
        return name.find_first_of("*?") != std::string::npos;
    }

private:
    bool matches(std::size_t at, std::string const& name, std::size_t from) const;

    std::string pattern_;
};
