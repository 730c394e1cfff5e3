// Patterns of names.
#pragma once

#include <string>
#include <vector>

/** A name in which * stands for any characters but "/", ** for any, and ? for one but "/". A value.
 */
class Wildcard {
public:
    explicit Wildcard(std::string pattern) : pattern_(std::move(pattern)) {}

    /** In a time of the product of both lengths. */
    bool matches(std::string const& name) const;
    /** Whether a name has any of them. */
    static bool isIn(std::string const& name) {
        return name.find_first_of("*?") != std::string::npos;
    }

private:
    using Places = std::vector<char>;  // whether each place of the pattern is reached

    std::size_t behindStar(std::size_t at) const;
    void reach(Places& places, std::size_t at) const;
    void step(Places& places, std::size_t at, char letter) const;

    std::string pattern_;
};
