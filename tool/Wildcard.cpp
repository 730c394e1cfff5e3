#include "Wildcard.h"

#include <utility>

// All places of the pattern that the name's beginning can have led to are gone along with at once:
// to try one after the other would take a time without bound.

bool Wildcard::matches(std::string const& name) const {
    Places now(pattern_.size() + 1, false);
    reach(now, 0);
    Places next(now.size());
    for (char const letter : name) {
        next.assign(now.size(), false);
        for (std::size_t at = 0; at < pattern_.size(); ++at) {
            if (now[at])
                step(next, at, letter);
        }
        std::swap(now, next);
    }
    return now.back();
}

std::size_t Wildcard::behindStar(std::size_t at) const {
    return pattern_.compare(at, 2, "**") == 0 ? at + 2 : at + 1;
}

void Wildcard::reach(Places& places, std::size_t at) const {
    while (!places[at]) {
        places[at] = true;
        // It may stand for nothing.
        if (at < pattern_.size() && pattern_[at] == '*')
            at = behindStar(at);
    }
}

void Wildcard::step(Places& places, std::size_t at, char letter) const {
    char const wanted = pattern_[at];
    if (wanted == '*') {
        if (letter != '/' || behindStar(at) == at + 2)
            reach(places, at);
    } else if (wanted == '?' ? letter != '/' : letter == wanted) {
        reach(places, at + 1);
    }
}
