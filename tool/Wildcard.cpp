#include "Wildcard.h"

bool Wildcard::matches(std::size_t at, std::string const& name, std::size_t from) const {
    for (; at < pattern_.size(); ++at) {
        if (pattern_[at] == '*') {
            bool const crosses = at + 1 < pattern_.size() && pattern_[at + 1] == '*';
            std::size_t const behind = at + (crosses ? 2 : 1);
            for (std::size_t end = from; end <= name.size(); ++end) {
                if (matches(behind, name, end))
                    return true;
                if (end < name.size() && name[end] == '/' && !crosses)
                    return false;
            }
            return false;
        }
        if (from == name.size() ||
            (pattern_[at] == '?' ? name[from] == '/' : pattern_[at] != name[from]))
            return false;
        ++from;
    }
    return from == name.size();
}
